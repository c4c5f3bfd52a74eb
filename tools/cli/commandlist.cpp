// SPDX-License-Identifier: MIT
#include "commandlist.h"

#include "options.h"
#include "toolerror.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

namespace
{

using Cells = std::vector<std::pair<QString, QString>>; // names and values

constexpr int rawLimit = typed::fileLimit;

// What the tool's own lines have beside the fields of a command.
bool isComputed(const QString& name)
{
    static const QStringList names{"acknowledgement",
                                   "answer",
                                   "aux2",
                                   "aux6",
                                   "block_length",
                                   "chksum",
                                   "code",
                                   "data_length",
                                   "elapsed_ms",
                                   "error",
                                   "endpoints",
                                   "faults",
                                   "form",
                                   "frame",
                                   "from",
                                   "length",
                                   "link",
                                   "ok",
                                   "replies",
                                   "status",
                                   "time",
                                   "times",
                                   "tries",
                                   "valid"};
    return names.contains(name);
}

Cells cellsOfJson(const QByteArray& line)
{
    QJsonParseError wrong{};
    const QJsonDocument document = QJsonDocument::fromJson(line, &wrong);
    if (!document.isObject()) {
        throw BadInput("no JSON object: " + wrong.errorString());
    }
    QJsonObject object = document.object();
    if (object.contains("simulating") || object.contains("summary")) {
        return {}; // the first line of simulate, the last one of send
    }
    if (object.value("sent").isObject()) {
        object = object.value("sent").toObject();
    }
    Cells cells;
    for (const QString& name : object.keys()) {
        const QString value = object.value(name).toVariant().toString();
        if (!isComputed(name) && !value.isEmpty()) {
            cells.emplace_back(name, value);
        }
    }
    if (cells.empty() && object.contains("frame")) {
        cells.emplace_back("raw", object.value("frame").toString());
    }
    return cells;
}

QStringList cellsOfCsv(const QString& line)
{
    static const QRegularExpression cell("(?:^|,)\\s*(?:\"((?:[^\"]|\"\")*)\"\\s*(?=,|$)|([^,]*))");
    QStringList cells;
    auto found = cell.globalMatch(line);
    while (found.hasNext()) {
        const auto match = found.next();
        const QString quoted = match.captured(1);
        cells << (match.capturedStart(1) >= 0 ? QString(quoted).replace("\"\"", "\"")
                                              : match.captured(2).trimmed());
    }
    return cells;
}

Cells named(const QStringList& names, const QStringList& values)
{
    if (values.size() > names.size()) {
        throw BadInput(QString("%1 values below %2 names").arg(values.size()).arg(names.size()));
    }
    Cells cells;
    for (int i = 0; i < values.size(); ++i) {
        if (!values.at(i).isEmpty()) {
            cells.emplace_back(names.at(i).toLower(), values.at(i));
        }
    }
    return cells;
}

Command commandOf(const Cells& cells, FieldSet set)
{
    CommandFields fields;
    Command command;
    for (const auto& [name, value] : cells) {
        if (name == "raw") {
            command.raw = typed::bytes(name, value, rawLimit);
        } else {
            fields.set(name, value);
        }
    }
    if (!command.raw.isEmpty() && !fields.isEmpty()) {
        throw BadInput("raw bytes and fields: give one of them");
    }
    return command.raw.isEmpty() ? fields.read(set) : command;
}

} // namespace

std::vector<Command> commandlist::read(const QString& option, const QString& path, FieldSet fields)
{
    const QByteArray content = typed::file(option, path, typed::fileLimit);
    const bool isJson = content.trimmed().startsWith('{');
    std::vector<Command> commands;
    QStringList names; // of CSV
    int number = 0;
    for (const QByteArray& text : content.split('\n')) {
        ++number;
        const QByteArray line = text.trimmed();
        if (line.isEmpty()) {
            continue;
        }
        if (!isJson && names.isEmpty()) {
            names = cellsOfCsv(QString::fromUtf8(line));
            continue;
        }
        try {
            const Cells cells =
                isJson ? cellsOfJson(line) : named(names, cellsOfCsv(QString::fromUtf8(line)));
            if (!cells.empty()) {
                commands.push_back(commandOf(cells, fields));
            }
        } catch (const BadInput& wrong) {
            throw BadInput(QString("line %1 of %2: %3")
                               .arg(number)
                               .arg(path, QString::fromUtf8(wrong.what())));
        }
    }
    if (commands.empty()) {
        throw BadInput(option, path, "commands, as JSON lines or as CSV below their names");
    }
    return commands;
}
