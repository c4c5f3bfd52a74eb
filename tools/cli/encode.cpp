// SPDX-License-Identifier: MIT
#include "commands.h"

#include "options.h"
#include "output.h"
#include "recordtext.h"
#include "toolerror.h"

namespace
{

struct Encode {
    CommandFields fields;
    bool binary = false;
    bool osd = false;
    bool raw = false;
    bool json = false;

    int run() const;
};

int Encode::run() const
{
    const FieldSet set = binary ? FieldSet::BinaryHead
                         : osd  ? FieldSet::OsdFrame
                                : FieldSet::TextBody;
    const QByteArray frame = recordtext::frame(fields.read(set), set);
    if (raw) {
        output::raw(frame);
    } else if (json) {
        output::json({{"form", binary ? "binary"
                               : osd  ? "osd"
                                      : "text"},
                      {"length", frame.size()},
                      {"frame", QString::fromLatin1(frame.toHex())}});
    } else {
        output::line(QString::fromLatin1(frame.toHex()));
    }
    return exitcode::success;
}

} // namespace

void commands::addEncode(CLI::App& application, int& code)
{
    auto* parser =
        application.add_subcommand("encode", "Show the frame of a command, without a device");
    const auto encode = std::make_shared<Encode>();
    encode->fields.addTo(*parser);
    auto* binary = parser->add_flag("--binary", encode->binary,
                                    "the binary frame of vela:// instead of the text frame");
    parser->add_flag("--osd", encode->osd, "the frame of osd:// instead")->excludes(binary);
    auto* raw = parser->add_flag("--raw", encode->raw, "write the frame's bytes as they are");
    parser->add_flag("--json", encode->json, "print one JSON object")->excludes(raw);
    parser->footer("Prints the frame in hexadecimal, as decode reads it.\n"
                   "\nExamples:\n"
                   "  coremanage encode --cmd 0x8b --dat1 5 --raw\n"
                   "  coremanage encode --cmd 0x9a --block 00ff10 --binary\n"
                   "  coremanage encode --cmd 1 | coremanage decode -\n"
                   "  coremanage encode --osd --ch2 1 --ch10 9 --text 'Gate 7'\n"
                   "\nExit codes: 0 done, 2 wrong input.");
    parser->callback([encode, &code] { code = encode->run(); });
}
