#include "sigmf.hpp"

#include <fstream>
#include <nlohmann/json.hpp>

#include "companion.hpp"

namespace companion {

std::string sigmf_meta_name(const std::string& data_file) {
    std::string stem = data_file;
    for (const char* ext : {".sigmf-data", ".bin"}) {
        const std::string e = ext;
        if (stem.size() > e.size() && stem.compare(stem.size() - e.size(), e.size(), e) == 0) {
            stem.resize(stem.size() - e.size());
            break;
        }
    }
    return stem + ".sigmf-meta";
}

std::optional<SigmfInfo> read_sigmf(const std::string& data_file) {
    SigmfInfo info;
    info.meta = sigmf_meta_name(data_file);
    std::ifstream in(info.meta);
    if (!in) return std::nullopt;
    const nlohmann::json doc = nlohmann::json::parse(in, nullptr, false);
    if (doc.is_discarded()) fail("%s: not valid JSON", info.meta.c_str());
    const auto global = doc.find("global");
    if (!doc.is_object() || global == doc.end() || !global->is_object())
        fail("%s: no \"global\" object: not SigMF metadata", info.meta.c_str());
    const auto field = [&](const char* key, nlohmann::json::value_t kind) -> const nlohmann::json* {
        const auto it = global->find(key);
        if (it == global->end()) return nullptr;
        const bool ok = kind == nlohmann::json::value_t::string ? it->is_string() : it->is_number();
        if (!ok) fail("%s: \"%s\" is not a %s", info.meta.c_str(), key, it->is_string() ? "number" : "text");
        return &*it;
    };
    if (const auto* t = field("core:datatype", nlohmann::json::value_t::string)) info.datatype = t->get<std::string>();
    else fail("%s: no \"core:datatype\"", info.meta.c_str());
    if (const auto* r = field("core:sample_rate", nlohmann::json::value_t::number_float)) {
        info.sample_rate = r->get<double>();
        if (!(*info.sample_rate > 0)) fail("%s: \"core:sample_rate\" must be positive", info.meta.c_str());
    }
    const auto captures = doc.find("captures");
    if (captures != doc.end() && captures->is_array() && !captures->empty()) {
        const auto& first = (*captures)[0];
        const auto f = first.find("core:frequency");
        if (f != first.end() && f->is_number()) info.frequency = f->get<double>();
    }
    return info;
}

}  // namespace companion
