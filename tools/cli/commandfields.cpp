// SPDX-License-Identifier: MIT
#include "commandfields.h"

#include "options.h"
#include "toolerror.h"

#include <algorithm>

namespace
{

constexpr int blockLimit = 65535; // DAT4 * 256 + DAT3 announces no more
constexpr quint16 binaryLead = 0xf11f;
constexpr const char* deviceGroup = "Command";
constexpr const char* osdGroup = "Command of an on-screen display";

QString optionOf(const CommandField& field)
{
    return QStringLiteral("--") + QString::fromLatin1(field.name).toLower();
}

// One of the fields is not carried.
[[noreturn]] void refuse(const QString& option, FieldSet fields)
{
    throw BadInput(QStringLiteral("%1: %2 frames do not carry it: leave it out")
                       .arg(option, fields == FieldSet::OsdFrame
                                        ? QStringLiteral("on-screen-display")
                                    : fields == FieldSet::BinaryHead ? QStringLiteral("binary")
                                                                     : QStringLiteral("text")));
}

} // namespace

void CommandFields::addTo(CLI::App& app)
{
    for (const CommandField& field : CommandField::all()) {
        if (field.help == nullptr) {
            continue;
        }
        const QString option = optionOf(field);
        const auto read = [this, &field, option](const std::string& text) {
            const qint64 limit = (1 << (8 * field.bytes())) - 1;
            numbers[&field] =
                static_cast<int>(typed::number(option, QString::fromStdString(text), 0, limit));
        };
        app.add_option_function<std::string>(option.toStdString(), read, field.help)
            ->type_name("")
            ->group(field.isIn(FieldSet::OsdFrame) ? osdGroup : deviceGroup);
    }
    const auto addPayload = [this, &app](const char* option, const char* help, const char* group) {
        const auto keep = [this, option](const std::string& text) { payload[option] = text; };
        return app.add_option_function<std::string>(option, keep, help)
            ->type_name("")
            ->group(group);
    };
    addPayload("--block", "block: @FILE, or hexadecimal digits", deviceGroup);
    auto* data = addPayload("--data", "data: @FILE, or hexadecimal digits", osdGroup);
    addPayload("--text", "data: a text, sent in UTF-8", osdGroup)->excludes(data);
}

QByteArray CommandFields::payloadOf(const char* option, int limit) const
{
    return given(option) ? typed::bytes(QString::fromLatin1(option),
                                        QString::fromStdString(payload.at(option)), limit)
                         : QByteArray();
}

Command CommandFields::read(FieldSet fields) const
{
    const bool isOsd = fields == FieldSet::OsdFrame;
    for (const auto& [field, value] : numbers) {
        if (!field->isIn(fields)) {
            refuse(optionOf(*field), fields);
        }
    }
    for (const auto& [option, text] : payload) {
        if ((option == "--block") == isOsd) {
            refuse(QString::fromStdString(option), fields);
        }
    }
    Command command;
    if (isOsd) {
        if (numbers.empty() && payload.empty()) {
            throw BadInput(QStringLiteral("there is no command: give --ch2 to --ch10 (but no "
                                          "ch6), --data or --text"));
        }
        command.osd.arryData = given("--text") ? QByteArray::fromStdString(payload.at("--text"))
                                               : payloadOf("--data", typed::fileLimit);
    } else {
        const bool hasCode = std::any_of(numbers.begin(), numbers.end(), [&](const auto& number) {
            return optionOf(*number.first) == QLatin1String("--cmd");
        });
        if (!hasCode) {
            throw BadInput(
                QStringLiteral("--cmd is missing: give the command code, like --cmd 0x8b"));
        }
        model_Protocoldata& record = command.record;
        record.arryDatablock = payloadOf("--block", blockLimit);
        record.DAT3 = static_cast<quint8>(record.arryDatablock.size());
        record.DAT4 = static_cast<quint8>(record.arryDatablock.size() >> 8);
        record.aux1 = fields == FieldSet::BinaryHead ? binaryLead : 0;
    }
    for (const auto& [field, value] : numbers) {
        field->set(command, value);
    }
    return command;
}
