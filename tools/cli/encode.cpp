// SPDX-License-Identifier: MIT
#include "commands.h"

#include "commandfields.h"
#include "output.h"
#include "recordtext.h"
#include "toolerror.h"

#include <CLI/CLI.hpp>

namespace
{

class Encode
{
public:
    explicit Encode(CLI::App& application);

    CLI::App* parser;
    int run();

private:
    CommandFields fields;
    bool binary = false;
    bool osd = false;
    bool raw = false;
    bool json = false;
};

Encode::Encode(CLI::App& application)
    : parser(application.add_subcommand("encode", "Show the frame of a command, without a device"))
{
    fields.addTo(*parser);
    auto* binaryFlag = parser->add_flag("--binary", binary,
                                        "the binary frame of vela:// instead of the text frame");
    parser->add_flag("--osd", osd, "the frame of osd:// instead")->excludes(binaryFlag);
    auto* rawFlag = parser->add_flag("--raw", raw, "write the frame's bytes as they are");
    parser->add_flag("--json", json, "print one JSON object")->excludes(rawFlag);
    parser->footer("Prints the frame in hexadecimal, as decode reads it.\n"
                   "\nExamples:\n"
                   "  coremanage encode --cmd 0x8b --dat1 5 --raw\n"
                   "  coremanage encode --cmd 0x9a --block 00ff10 --binary\n"
                   "  coremanage encode --cmd 1 | coremanage decode -\n"
                   "  coremanage encode --osd --ch2 1 --ch10 9 --text 'Gate 7'\n"
                   "\nExit codes: 0 done, 2 wrong input.");
}

int Encode::run()
{
    const FieldSet set = binary ? FieldSet::BinaryHead
                         : osd  ? FieldSet::OsdFrame
                                : FieldSet::TextBody;
    const Command command = fields.read(set);
    const QByteArray frame = recordtext::frame(command, set);
    if (raw) {
        output::raw(frame);
    } else if (json) {
        output::line(
            recordtext::oneLine({{QStringLiteral("form"), binary ? QStringLiteral("binary")
                                                          : osd  ? QStringLiteral("osd")
                                                                 : QStringLiteral("text")},
                                 {QStringLiteral("length"), frame.size()},
                                 {QStringLiteral("frame"), QString::fromLatin1(frame.toHex())}}));
    } else {
        output::line(QString::fromLatin1(frame.toHex()));
    }
    return exitcode::success;
}

} // namespace

commands::Subcommand commands::addEncode(CLI::App& application)
{
    const auto encode = std::make_shared<Encode>(application);
    return {encode->parser, [encode] { return encode->run(); }};
}
