// The transmitter's option table.
#include "frame/options.hpp"

#include "frame/params.hpp"

std::array<dvbOption, TERVANE_NOPTS> tervane_options(int32_t* verbosity_arg) {
    dvbt_parms_t& p = dvbt_parms;
    return {{
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
        {.name = "-v", .kind = dvbInt, .idefault = 3, .target = verbosity_arg},
        {.name = "-g", .kind = dvbReal, .rdefault = 4.2, .target = &p.gain},
        {.name = "-d", .kind = dvbString, .target = &dumptypes},
        {.name = "-F", .kind = dvbList, .nnames = 3, .names = dvbt_dumpformat.data(), .idefault = 0, .target = &p.dumpformat},
        {.name = "-s", .kind = dvbInt, .idefault = 100, .target = &packnum},
        {.name = "-idi", .kind = dvbBool, .idefault = 0, .target = &p.idi},
    }};
}
