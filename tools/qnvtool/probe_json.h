// The JSON form of a unit's syntax elements for `qnvtool probe`: a field
// sink that keeps the elements a record holds, in syntax order, nested
// structures as objects and subscripted elements as arrays.
#ifndef QNVTOOL_PROBE_JSON_H
#define QNVTOOL_PROBE_JSON_H

#include <cstring>
#include <nlohmann/json.hpp>
#include <vector>

#include "foundation/syntax/coder.h"

namespace qnvtool {

using Json = nlohmann::ordered_json;

class JsonFields : public qnv::syntax::FieldSink {
public:
    // How ue(v) words print: H.264 records hold them signed (a failed read
    // is -1), HEVC records unsigned.
    enum class Codes { kUnsigned, kSigned };
    explicit JsonFields(Codes codes = Codes::kUnsigned) : codes_(codes) { stack_.push_back(&fields); }

    Json fields = Json::object();

    void field(uint32_t, const qnv::syntax::Name& name, int64_t value, int32_t width, bool kept) override {
        if (!kept) return;
        Json v;
        if (width == qnv::syntax::kSe || width == 0)
            v = codes_ == Codes::kSigned ? Json(static_cast<int32_t>(value)) : Json(value);
        else if (width == qnv::syntax::kUe && codes_ == Codes::kSigned)
            v = static_cast<int32_t>(value);
        else
            v = static_cast<uint64_t>(value) & (width == 48 ? 0xFFFFFFFFFFFFull : 0xFFFFFFFFull);
        Json& obj = *stack_.back();
        if (std::strcmp(name.text, "general_constraint_flags") == 0) {
            // The four leading flags by their own names, and all 48 bits.
            obj["general_progressive_source_flag"] = (value >> 47) & 1;
            obj["general_interlaced_source_flag"] = (value >> 46) & 1;
            obj["general_non_packed_constraint_flag"] = (value >> 45) & 1;
            obj["general_frame_only_constraint_flag"] = (value >> 44) & 1;
        }
        Json& slot = obj[name.text];
        if (name.i < 0) {
            slot = v;
        } else if (name.j < 0) {
            slot[static_cast<size_t>(name.i)] = v;
        } else {
            slot[static_cast<size_t>(name.i)][static_cast<size_t>(name.j)] = v;
        }
    }
    void open(const char* structure) override {
        Json& obj = *stack_.back();
        obj[structure] = Json::object();
        stack_.push_back(&obj[structure]);
    }
    void close() override {
        if (stack_.size() > 1) stack_.pop_back();
    }

private:
    Codes codes_;
    std::vector<Json*> stack_;
};

}  // namespace qnvtool

#endif
