// Process-wide transmission parameters, settings, buffer lengths and rates.
#include "frame/params.hpp"

dvbt_parms_t dvbt_parms{};

char* mpeg2ts_fname = nullptr;
char* mpeg2ts_hp_fname = nullptr;
char* mpeg2ts_lp_fname = nullptr;
char* out_fname = nullptr;
char* log_fname = nullptr;
char* dumptypes = nullptr;
uint16_t verbosity = 3;
int32_t help = 0;
int32_t version = 0;
int32_t packnum = 100;

uint32_t mpeg2len = 0, rslen = 0, cilen = 0, velen = 0, pulen = 0, bilen = 0, silen = 0,
         malen = 0, fdlen = 0, tdlen = 0, txlen = 0;

float f_s = 0.0f, T_s = 0.0f, B_n = 0.0f, r_u = 0.0f, r_uhp = 0.0f, r_ulp = 0.0f;

float proc_data_hp = 0.0f, proc_data_lp = 0.0f;
