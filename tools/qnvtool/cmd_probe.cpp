// qnvtool probe FILE [--first] [--hdr] [--kind NAME]: describes a stream with the
// prober that recognises it, reading it in chunks (FILE "-": standard input).
#include <iostream>
#include <memory>

#include "tools/qnvtool/probe.h"
#include "tools/qnvtool/stream_io.h"
#include "tools/qnvtool/tool.h"

namespace qnvtool {

namespace {
std::vector<Prober>& probers() {
    static std::vector<Prober> list;
    return list;
}

struct ProbeArgs {
    std::string file;
    std::string kind;
    ProbeOptions options;
};

void runProbe(const ProbeArgs& a) {
    InputStream in(a.file, true);
    UnitReader stream(in);
    const std::vector<uint8_t> head = streamHead(stream);
    for (const Prober& p : probers()) {
        if (a.kind.empty() ? p.detect(head) : a.kind == p.name) {
            p.run(stream, a.options, std::cout);
            return;
        }
    }
    if (!a.kind.empty()) throw Error("unknown stream kind '" + a.kind + "'");
    throw Error(in.name() + ": not a stream that qnvtool can probe");
}

const Registration kProbe([](CLI::App& app) {
    auto args = std::make_shared<ProbeArgs>();
    CLI::App* sub = app.add_subcommand("probe", "Describe the parameter sets or headers of a stream");
    sub->add_option("FILE", args->file, "stream file")->required();
    sub->add_flag("--first", args->options.first, "stop after the first parameter set or header");
    sub->add_flag("--slices", args->options.slices, "list every slice (segment) header as well");
    sub->add_flag("--hdr", args->options.hdr,
                  "H.264 and HEVC: list the colour SEI, HDR10+ and Dolby Vision units of each access unit "
                  "(with --first: the first access unit that has any)");
    sub->add_option("--kind", args->kind, "stream kind (detected when not given)");
    sub->callback([args] { runProbe(*args); });
});
}  // namespace

ProberRegistration::ProberRegistration(const Prober& prober) { probers().push_back(prober); }

void JsonArrayPrinter::add(const Json& element) {
    const std::string pad(static_cast<size_t>(indent_) + 2, ' ');
    const std::string text = element.dump(2);
    out_ << (count_++ == 0 ? "[\n" : ",\n") << pad;
    for (char c : text) {
        out_ << c;
        if (c == '\n') out_ << pad;
    }
}

void JsonArrayPrinter::close() {
    if (count_ == 0) {
        out_ << "[]";
        return;
    }
    out_ << "\n" << std::string(static_cast<size_t>(indent_), ' ') << "]";
}

}  // namespace qnvtool
