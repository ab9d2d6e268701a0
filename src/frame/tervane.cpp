// tervane: DVB-T software transmitter. The driver sets up the parameters, the
// files and one ring buffer per stage, then runs the chain in passes until a
// whole pass moves nothing.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "frame/files.hpp"
#include "frame/getopts.hpp"
#include "frame/params.hpp"
#include "frame/print.hpp"
#include "frame/time.hpp"
#include "inner/inner_coder.hpp"
#include "inner/inner_int.hpp"
#include "inner/mapper.hpp"
#include "ofdm/filter.hpp"
#include "ofdm/framing.hpp"
#include "ofdm/ofdm.hpp"
#include "outer/energy.hpp"
#include "outer/mpeg2.hpp"
#include "outer/outer_coder.hpp"
#include "outer/outer_int.hpp"
#include "outer/rs.hpp"
#include "vectors/basic_ops.hpp"
#include "vectors/manage.hpp"
#include "vectors/prbs.hpp"

namespace {

dvbVect *mpeg2ts_hp_buf = nullptr, *mpeg2ts_lp_buf = nullptr;
dvbVect *prbs_hp = nullptr, *prbs_lp = nullptr;
dvbVect *ed_hp_buf = nullptr, *ed_lp_buf = nullptr;
dvbVect *rs_hp_buf = nullptr, *rs_lp_buf = nullptr;
dvbVect *ci_hp_buf = nullptr, *ci_lp_buf = nullptr;
dvbVect *ve_hp_buf = nullptr, *ve_lp_buf = nullptr;
dvbVect *pu_hp_buf = nullptr, *pu_lp_buf = nullptr;
dvbVect *bi_buf = nullptr, *si_buf = nullptr, *ma_buf = nullptr, *fd_buf = nullptr;
dvbVect *td_buf = nullptr, *tx_buf = nullptr;

// Per-branch state of the outer interleaver and the convolutional encoder.
convint_state convint_hp{}, convint_lp{};
uint32_t encstate_hp = 0, encstate_lp = 0;

// Creates an empty ring of the given type and length with zeroed storage. The
// chain must not run with a missing buffer, so a failed allocation ends the run.
void create_buffer(dvbVect** buf, uint32_t type, uint32_t len) {
    unsigned rc = priv_dvbCreateVect(buf, type);
    if (rc == DVB_OK) rc = type == Complex ? dvbConstVect(*buf, type, len, 0.0, 0.0) : dvbConstVect(*buf, type, len, 0);
    if (rc != DVB_OK || *buf == nullptr || (len > 0 && (*buf)->data == nullptr)) {
        dvbMsgPrint(0, "FATAL ERROR: can't allocate a stream buffer of %u elements: %s\n", len,
                    dvbErrString[rc < 11 ? rc : 1]);
        std::exit(1);
    }
    (*buf)->head = 0;
    (*buf)->fill = 0;
}

// The smallest batch whose rings can each hold one OFDM symbol: the carriers of
// the framing output and the samples of the modulator output (both sized from
// the constellation requested on the command line).
int32_t min_packnum(uint32_t requested_M) {
    const auto F = static_cast<uint32_t>(dvbt_fftsize[dvbt_parms.mode]);
    const auto K = static_cast<uint32_t>(dvbt_K[dvbt_parms.mode]);
    const uint32_t symbol_len = F + static_cast<uint32_t>(static_cast<float>(F) * dvbt_guardfrac[dvbt_parms.delta]);
    const uint32_t cells = symbol_len > K ? symbol_len : K;
    const auto bps = static_cast<uint32_t>(dvbt_bitpersymb[requested_M]);
    return static_cast<int32_t>((cells * bps + 3263u) / 3264u);
}

}  // namespace

int main(int argc, char** argv) {
    // Step 1: defaults that the parser does not set.
    dvbt_parms = dvbt_parms_t{};
    dvbt_parms.delta = 3;
    dvbt_parms.band = 3;
    dvbt_parms.cinit = 1;
    int32_t verbosity_arg = 3;

    // Step 2: the 25 options.
    dvbt_parms_t& p = dvbt_parms;
    const dvbOption options[25] = {
        {.name = "-i", .kind = dvbString, .target = &mpeg2ts_fname},
        {.name = "-ihp", .kind = dvbString, .target = &mpeg2ts_hp_fname},
        {.name = "-ilp", .kind = dvbString, .target = &mpeg2ts_lp_fname},
        {.name = "-o", .kind = dvbString, .target = &out_fname},
        {.name = "-l", .kind = dvbString, .target = &log_fname},
        {.name = "-m", .kind = dvbList, .nnames = 3, .names = dvbt_modename.data(), .idefault = 0, .target = &p.mode},
        {.name = "-M", .kind = dvbList, .nnames = 3, .names = dvbt_Mname.data(), .idefault = 0, .target = &p.M},
        {.name = "-a", .kind = dvbList, .nnames = 4, .names = dvbt_alphaname.data(), .idefault = 0, .target = &p.alpha},
        {.name = "-D", .kind = dvbList, .nnames = 4, .names = dvbt_deltaname.data(), .idefault = 3, .target = &p.delta},
        {.name = "-p", .kind = dvbList, .nnames = 5, .names = dvbt_ratename.data(), .idefault = 0, .target = &p.rate},
        {.name = "-php", .kind = dvbList, .nnames = 5, .names = dvbt_ratename.data(), .idefault = 0, .target = &p.rate_hp},
        {.name = "-plp", .kind = dvbList, .nnames = 5, .names = dvbt_ratename.data(), .idefault = 0, .target = &p.rate_lp},
        {.name = "-b", .kind = dvbList, .nnames = 4, .names = dvbt_bandname.data(), .idefault = 3, .target = &p.band},
        {.name = "-c", .kind = dvbList, .nnames = 2, .names = dvbt_cinitname.data(), .idefault = 1, .target = &p.cinit},
        {.name = "-f", .kind = dvbList, .nnames = 3, .names = dvbt_ifftmmname.data(), .idefault = 0, .target = &p.ifftmm},
        {.name = "-I", .kind = dvbList, .nnames = 3, .names = dvbt_interpname.data(), .idefault = 0, .target = &p.interp},
        {.name = "-cid", .kind = dvbInt, .idefault = -1, .target = &p.cid},
        {.name = "-h", .kind = dvbBool, .idefault = 0, .target = &help},
        {.name = "-V", .kind = dvbBool, .idefault = 0, .target = &version},
        {.name = "-v", .kind = dvbInt, .idefault = 3, .target = &verbosity_arg},
        {.name = "-g", .kind = dvbReal, .rdefault = 4.2, .target = &p.gain},
        {.name = "-d", .kind = dvbString, .target = &dumptypes},
        {.name = "-F", .kind = dvbList, .nnames = 3, .names = dvbt_dumpformat.data(), .idefault = 0, .target = &p.dumpformat},
        {.name = "-s", .kind = dvbInt, .idefault = 100, .target = &packnum},
        {.name = "-idi", .kind = dvbBool, .idefault = 0, .target = &p.idi},
    };
    dvbGetCommArgs(argc, argv, 25, options);
    verbosity = static_cast<uint16_t>(verbosity_arg);

    // Step 3: the log.
    if (log_fname == nullptr || log_fname[0] == '\0') {
        std::free(log_fname);
        log_fname = nullptr;
        dvbMsgInit("test.log");
    } else {
        dvbMsgInit(log_fname);
    }

    // Steps 4 and 5: batch size and buffer lengths.
    if (packnum > 1000) packnum = 1000;
    if (packnum < 5) packnum = 5;
    const auto packets = static_cast<uint32_t>(packnum);
    mpeg2len = 188u * packets;
    rslen = 204u * packets;
    cilen = rslen;
    velen = 16u * rslen;
    pulen = velen;
    bilen = velen;
    silen = velen;
    malen = silen / static_cast<uint32_t>(dvbt_bitpersymb[p.M]);
    fdlen = malen;
    tdlen = malen;
    txlen = malen;

    // Steps 6 and 7: report, then files.
    const uint32_t requested_M = p.M;
    print_args();
    open_files();
    // A batch too small for one OFDM symbol stalls the chain before the modulator.
    if (packnum < min_packnum(requested_M)) {
        dvbMsgPrint(0, "WARNING: -s %d is too small for this mode: no OFDM symbol fits the buffers, "
                       "so no samples will be produced (use -s %d or more)\n",
                    packnum, min_packnum(requested_M));
    }
    const bool hier = dvbt_hierarchical();

    // Step 8: buffers and stage initialisation, in chain order.
    create_buffer(&mpeg2ts_hp_buf, Symbol, mpeg2len);
    if (hier) create_buffer(&mpeg2ts_lp_buf, Symbol, mpeg2len);
    priv_dvbCreateVect(&prbs_hp, Digital);
    dvbPRBSCreate(prbs_hp, ED_REGLEN, ED_TAPS, ED_INIT, ED_BITS);
    dvbConvertVect(prbs_hp, Symbol, 8, 0);
    prbs_hp->head = 0;
    create_buffer(&ed_hp_buf, Symbol, mpeg2len);
    if (hier) {
        priv_dvbCreateVect(&prbs_lp, Digital);
        dvbCopyVect(prbs_lp, prbs_hp);
        prbs_lp->head = 0;
        create_buffer(&ed_lp_buf, Symbol, mpeg2len);
    }
    if (prbs_hp == nullptr || prbs_hp->len != ED_GROUP || (hier && (prbs_lp == nullptr || prbs_lp->len != ED_GROUP))) {
        dvbMsgPrint(0, "FATAL ERROR: can't allocate the energy dispersal sequence\n");
        std::exit(1);
    }
    init_rs();
    create_buffer(&rs_hp_buf, Symbol, rslen);
    if (hier) create_buffer(&rs_lp_buf, Symbol, rslen);
    init_convint(&convint_hp, 12, 17);
    create_buffer(&ci_hp_buf, Symbol, cilen);
    if (hier) {
        init_convint(&convint_lp, 12, 17);
        create_buffer(&ci_lp_buf, Symbol, cilen);
    }
    init_convenc(&encstate_hp, 0);
    create_buffer(&ve_hp_buf, Symbol, velen);
    if (hier) {
        init_convenc(&encstate_lp, 0);
        create_buffer(&ve_lp_buf, Symbol, velen);
    }
    create_buffer(&pu_hp_buf, Symbol, pulen);
    if (hier) create_buffer(&pu_lp_buf, Symbol, pulen);
    create_buffer(&bi_buf, Symbol, bilen);
    dvbSymIntAddrGenerate();
    create_buffer(&si_buf, Symbol, silen);
    dvbQAMConstGenerate();
    create_buffer(&ma_buf, Complex, malen);
    init_tps();
    create_buffer(&fd_buf, Complex, fdlen);
    init_ifft();
    create_buffer(&td_buf, Complex, tdlen);
    init_filt();
    if (p.interp != 0) create_buffer(&tx_buf, Complex, txlen);

    dvbTic();
    proc_data_hp = 0.0f;
    proc_data_lp = 0.0f;

    // The passes: every stage once, in chain order, until a whole pass moves nothing.
    const uint16_t rate_hp = static_cast<uint16_t>(hier ? p.rate_hp : p.rate);
    const uint16_t rate_lp = static_cast<uint16_t>(p.rate_lp);
    bool active = true;
    while (active) {
        uint64_t moved = 0;
        moved += read_mpeg(mpeg2ts_hp_fp, mpeg2ts_hp_buf, mpeg2len);
        if (hier) moved += read_mpeg(mpeg2ts_lp_fp, mpeg2ts_lp_buf, mpeg2len);
        moved += static_cast<uint32_t>(energy_inv(mpeg2ts_hp_buf, ed_hp_buf, prbs_hp, mpeg2len, ed_hp_fp));
        if (hier) moved += static_cast<uint32_t>(energy_inv(mpeg2ts_lp_buf, ed_lp_buf, prbs_lp, mpeg2len, ed_lp_fp));
        moved += rs_short204188(ed_hp_buf, rs_hp_buf, rslen, rs_hp_fp);
        if (hier) moved += rs_short204188(ed_lp_buf, rs_lp_buf, rslen, rs_lp_fp);
        moved += conv_int(rs_hp_buf, ci_hp_buf, &convint_hp, cilen, ci_hp_fp);
        if (hier) moved += conv_int(rs_lp_buf, ci_lp_buf, &convint_lp, cilen, ci_lp_fp);
        moved += static_cast<uint32_t>(encode27(ci_hp_buf, ve_hp_buf, &encstate_hp, velen, ve_hp_fp));
        if (hier) moved += static_cast<uint32_t>(encode27(ci_lp_buf, ve_lp_buf, &encstate_lp, velen, ve_lp_fp));
        moved += static_cast<uint32_t>(puncture(ve_hp_buf, pu_hp_buf, rate_hp, pulen, pu_hp_fp));
        if (hier) moved += static_cast<uint32_t>(puncture(ve_lp_buf, pu_lp_buf, rate_lp, pulen, pu_lp_fp));
        moved += bit_interleave(pu_hp_buf, pu_lp_buf, bi_buf, bilen, bi_fp);
        moved += static_cast<uint32_t>(symbol_interleave(bi_buf, si_buf, silen, si_fp));
        moved += static_cast<uint32_t>(qam_map(si_buf, ma_buf, malen, ma_fp));
        moved += piltps_add(ma_buf, fd_buf, fdlen, fd_fp);
        moved += ofdm_mod(fd_buf, td_buf, tdlen, nullptr);
        if (p.interp != 0) {
            moved += transmit(td_buf, tx_buf, tdlen, nullptr);
            moved += static_cast<uint32_t>(time_dump(tx_buf, td_fp, tdI_fp, tdQ_fp, 400000));
        } else {
            moved += static_cast<uint32_t>(time_dump(td_buf, td_fp, tdI_fp, tdQ_fp, 400000));
        }
        active = moved != 0;
    }

    // End report.
    const float t = static_cast<float>(dvbToc());
    const float x = (proc_data_hp + proc_data_lp) * 8.0f / t;
    if (hier) r_u = r_uhp + r_ulp;
    dvbMsgPrint(1, "Theoretical global rate = %.3f kbps\n", r_u / 1000.0);
    dvbMsgPrint(1, "Elapsed time = %.6f s. ", static_cast<double>(t));
    dvbMsgPrint(1, "Approx. %.3f kbps.\n", x / 1000.0);
    if (r_u < x)
        dvbMsgPrint(2, "This is %.1f times faster than real-time ;=)\n", static_cast<double>(x / r_u));
    else if (r_u >= x)
        dvbMsgPrint(2, "This is %.1f times slower than real-time :=(\n", static_cast<double>(r_u / x));
    else
        dvbMsgPrint(2, "This is %.1f times faster than real-time ;=)\n", static_cast<double>(x / r_u));

    // Teardown.
    dvbVect** all[] = {&prbs_hp,   &prbs_lp,   &mpeg2ts_hp_buf, &mpeg2ts_lp_buf, &ed_hp_buf, &ed_lp_buf,
                       &rs_hp_buf, &rs_lp_buf, &ci_hp_buf,      &ci_lp_buf,      &ve_hp_buf, &ve_lp_buf,
                       &pu_hp_buf, &pu_lp_buf, &bi_buf,         &si_buf,         &ma_buf,    &fd_buf,
                       &td_buf,    &tx_buf};
    for (dvbVect** b : all) priv_dvbDestroyVect(b);
    close_files();
    dvbMsgClose();
    return 0;
}
