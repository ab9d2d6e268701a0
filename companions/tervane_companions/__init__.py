"""tervane's Python companions: the shared modules (tables, options, files,
samples) and one module per program (view, rx_gnuradio, waterfall)."""
