// The chain of stages: buffers, per-branch state, start-up and passes.
#include "frame/chain.hpp"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>

#include "frame/files.hpp"
#include "frame/params.hpp"
#include "frame/print.hpp"
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
                    dvbErrString[rc < std::size(dvbErrString) ? rc : DVB_UNKNOWN]);
        std::exit(1);
    }
    (*buf)->head = 0;
    (*buf)->fill = 0;
}

}  // namespace

void chain_set_lengths() {
    if (packnum > 1000) packnum = 1000;
    if (packnum < 5) packnum = 5;
    const auto packets = static_cast<uint32_t>(packnum);
    mpeg2len = TS_PACKET * packets;
    rslen = RS_PACKET * packets;
    cilen = rslen;
    velen = 16u * rslen;
    pulen = velen;
    bilen = velen;
    silen = velen;
    malen = silen / static_cast<uint32_t>(dvbt_bitpersymb[dvbt_parms.M]);
    fdlen = malen;
    tdlen = malen;
    txlen = malen;
}

void chain_create() {
    const dvbt_parms_t& p = dvbt_parms;
    const bool hier = dvbt_hierarchical();
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
}

bool chain_pass_to_samples() {
    const dvbt_parms_t& p = dvbt_parms;
    const bool hier = dvbt_hierarchical();
    const uint16_t rate_hp = static_cast<uint16_t>(hier ? p.rate_hp : p.rate);
    const uint16_t rate_lp = static_cast<uint16_t>(p.rate_lp);
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
    if (p.interp != 0) moved += transmit(td_buf, tx_buf, tdlen, nullptr);
    return moved != 0;
}

dvbVect* chain_input(bool lp) { return lp ? mpeg2ts_lp_buf : mpeg2ts_hp_buf; }

dvbVect* chain_samples() { return dvbt_parms.interp != 0 ? tx_buf : td_buf; }

bool chain_pass() {
    const bool moved = chain_pass_to_samples();
    return time_dump(chain_samples(), td_fp, tdI_fp, tdQ_fp, TIME_DUMP_MAX) != 0 || moved;
}

void chain_destroy() {
    dvbVect** all[] = {&prbs_hp,   &prbs_lp,   &mpeg2ts_hp_buf, &mpeg2ts_lp_buf, &ed_hp_buf, &ed_lp_buf, &rs_hp_buf,
                       &rs_lp_buf, &ci_hp_buf, &ci_lp_buf,      &ve_hp_buf,      &ve_lp_buf, &pu_hp_buf, &pu_lp_buf,
                       &bi_buf,    &si_buf,    &ma_buf,         &fd_buf,         &td_buf,    &tx_buf};
    for (dvbVect** b : all) priv_dvbDestroyVect(b);
}

int32_t chain_min_packnum(uint32_t requested_M) {
    const auto F = static_cast<uint32_t>(dvbt_fftsize[dvbt_parms.mode]);
    const auto K = static_cast<uint32_t>(dvbt_K[dvbt_parms.mode]);
    const uint32_t symbol_len = F + static_cast<uint32_t>(static_cast<float>(F) * dvbt_guardfrac[dvbt_parms.delta]);
    const uint32_t cells = symbol_len > K ? symbol_len : K;
    const auto bps = static_cast<uint32_t>(dvbt_bitpersymb[requested_M]);
    // One packet in the batch is 16 coded bits per byte of its RS packet in every bit ring.
    constexpr uint32_t bits_per_packet = 16u * RS_PACKET;
    return static_cast<int32_t>((cells * bps + bits_per_packet - 1) / bits_per_packet);
}
