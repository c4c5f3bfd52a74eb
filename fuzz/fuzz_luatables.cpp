// SPDX-License-Identifier: MIT
// Any table of reply kinds as the dissector gets it: looked up as the dissector does it, each CMD
// and DAT1 has its kind. A row is a CMD, a DAT1, for all of them or one, and a kind; the first that
// matches decides.
#include "luatables.h"
#include "require.h"

#include <QMap>
#include <QRegularExpression>
#include <QSet>

#include <utility>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace
{

using replykinds::Block;
using replykinds::Kind;

const char* const blocks[] = {"None",           "Immediate", "Announced",
                              "AnnouncedIfAny", "FixedA",    "FixedB"};

struct Row {
    int command;
    int subCode; // -1: any
    Kind kind;
};

std::vector<Row> rowsOf(const QByteArray& bytes)
{
    const auto at = [&bytes](int position) { return static_cast<quint8>(bytes.at(position)); };
    constexpr int rowSize = 4;
    constexpr int blockCount = 6;
    std::vector<Row> rows;
    for (int start = 0; start + rowSize <= bytes.size(); start += rowSize) {
        const int kind = at(start + 3);
        rows.push_back({at(start),
                        at(start + 2) < 100 ? -1 : at(start + 1),
                        {static_cast<Block>(kind % blockCount),
                         static_cast<Block>(kind / blockCount % blockCount), kind > 127}});
    }
    return rows;
}

Kind kindIn(const std::vector<Row>& rows, int command, int subCode)
{
    for (const Row& row : rows) {
        if (row.command == command && (row.subCode < 0 || row.subCode == subCode)) {
            return row.kind;
        }
    }
    return {Block::None, Block::None, false};
}

QString shown(const Kind& kind)
{
    return QStringLiteral("\"%1\", \"%2\", %3")
        .arg(blocks[static_cast<int>(kind.onUdp)], blocks[static_cast<int>(kind.onStream)],
             kind.mayBeShort ? "true" : "false");
}

// By the command: by the sub-code in text, "others" among them.
using Tables = QMap<int, QMap<QString, QString>>;

Tables tablesIn(const QString& lua)
{
    static const QRegularExpression command(QStringLiteral("\\n    \\[0x(..)\\] = \\{(.*)\\},"));
    static const QRegularExpression entry(
        QStringLiteral("(?:\\[0x(..)\\]|(others)) = \\{([^}]*)\\}"));
    Tables tables;
    auto commands = command.globalMatch(lua);
    while (commands.hasNext()) {
        const auto found = commands.next();
        auto entries = entry.globalMatch(found.captured(2));
        while (entries.hasNext()) {
            const auto one = entries.next();
            tables[found.captured(1).toInt(nullptr, 16)][one.captured(1) + one.captured(2)] =
                one.captured(3);
        }
    }
    return tables;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::vector<Row> rows =
        rowsOf(QByteArray(reinterpret_cast<const char*>(data), static_cast<int>(size)));
    const auto kindOf = [&rows](const model_Protocoldata& reply) {
        return kindIn(rows, reply.CMD, reply.DAT1);
    };
    const Tables tables = tablesIn(QString::fromStdString(luatables::kinds(kindOf)));
    const QString standard = shown({Block::None, Block::None, false});
    QSet<int> commands; // all others have no table
    for (const Row& row : rows) {
        commands.insert(row.command);
    }
    for (const int command : tables.keys()) {
        require(commands.contains(command), "only a command with a row has a table");
    }
    for (const int command : std::as_const(commands)) {
        const auto subCodes = tables.value(command, {{QStringLiteral("others"), standard}});
        for (int subCode = 0; subCode < 256; ++subCode) {
            const QString code = QStringLiteral("%1").arg(subCode, 2, 16, QLatin1Char('0'));
            const QString kind = subCodes.value(code, subCodes.value(QStringLiteral("others")));
            require(kind == shown(kindIn(rows, command, subCode)), "a kind is the dissector's");
        }
    }
    return 0;
}
