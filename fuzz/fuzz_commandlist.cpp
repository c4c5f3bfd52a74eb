// SPDX-License-Identifier: MIT
// Any file as a list of commands, on every kind of link: it is refused with words, or its commands,
// written as the tool writes them, are read as the same ones.
#include "commandlist.h"
#include "recordtext.h"
#include "require.h"
#include "toolerror.h"

#include <QJsonDocument>
#include <QTemporaryDir>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace
{

std::vector<Command> commandsOf(const QByteArray& text, FieldSet fields)
{
    static const QTemporaryDir directory(QStringLiteral("/dev/shm/fuzz_commandlist"));
    const QString path = directory.filePath(QStringLiteral("list"));
    QFile file(path);
    require(file.open(QIODevice::WriteOnly) && file.write(text) == text.size(), "a file");
    file.close();
    return commandlist::read(QStringLiteral("--from"), path, fields);
}

QByteArray framesOf(const std::vector<Command>& commands, FieldSet fields)
{
    QByteArray all;
    for (const Command& command : commands) {
        all += recordtext::frame(command, fields).toHex() + '\n';
    }
    return all;
}

void look(const QByteArray& text, FieldSet fields)
{
    std::vector<Command> commands;
    try {
        commands = commandsOf(text, fields);
    } catch (const BadInput& wrong) {
        require(*wrong.what() != '\0', "a refusal has words");
        return;
    }
    require(!commands.empty(), "no list is empty");
    QByteArray lines;
    for (const Command& command : commands) {
        const QJsonObject line =
            command.raw.isEmpty() ? recordtext::json(command, fields)
                                  : QJsonObject{{"raw", QString::fromLatin1(command.raw.toHex())}};
        lines += QJsonDocument(line).toJson(QJsonDocument::Compact) + '\n';
    }
    require(framesOf(commandsOf(lines, fields), fields) == framesOf(commands, fields),
            "the same commands");
}

} // namespace

// A value "@FILE" would read any file of the machine.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const QByteArray text(reinterpret_cast<const char*>(data), static_cast<int>(size));
    for (const FieldSet fields : {FieldSet::TextBody, FieldSet::BinaryHead, FieldSet::OsdFrame}) {
        if (!text.contains('@') && !text.contains("\\u")) {
            look(text, fields);
        }
    }
    return 0;
}
