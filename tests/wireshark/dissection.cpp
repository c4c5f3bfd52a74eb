// SPDX-License-Identifier: MIT
#include "dissection.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QXmlStreamReader>

namespace
{

constexpr int patienceMs = 300000;

void collect(QXmlStreamReader& xml, ShownFields& fields)
{
    while (xml.readNextStartElement()) {
        const QString name = xml.attributes().value("name").toString();
        if (name.startsWith(QStringLiteral("coremanage."))) {
            fields[name.mid(11)] = xml.attributes().value("show").toString();
        }
        collect(xml, fields);
    }
}

void readPacket(QXmlStreamReader& xml, ShownPacket& packet, QString& trouble)
{
    while (xml.readNextStartElement()) {
        const QString name = xml.attributes().value("name").toString();
        if (name == QStringLiteral("coremanage")) {
            packet.items.emplace_back();
            collect(xml, packet.items.back());
        } else if (name.contains(QStringLiteral("malformed")) ||
                   name.contains(QStringLiteral("lua"))) {
            trouble = QString("packet %1: %2").arg(packet.number).arg(name);
            xml.skipCurrentElement();
        } else {
            xml.skipCurrentElement();
        }
    }
}

} // namespace

bool hasTshark()
{
    return !QStandardPaths::findExecutable(QStringLiteral("tshark")).isEmpty();
}

QByteArray runTshark(const QByteArray& capture, const QStringList& options, QString& trouble)
{
    // As a person has it: in the folder of their own plug-ins, beside their profiles.
    const QTemporaryDir home;
    const QString plugins = home.filePath(QStringLiteral(".local/lib/wireshark/plugins"));
    const QString profiles = home.filePath(QStringLiteral(".config/wireshark/profiles"));
    QDir().mkpath(plugins);
    QDir().mkpath(profiles);
    QFile::link(QStringLiteral(DISSECTOR), plugins + "/coremanage.lua");
    QFile::link(QStringLiteral(PROFILE), profiles + "/Core_Manage");
    QFile file(home.filePath(QStringLiteral("capture.pcap")));
    file.open(QIODevice::WriteOnly);
    file.write(capture);
    file.close();
    QProcess tshark;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("HOME"), home.path());
    environment.remove(QStringLiteral("XDG_CONFIG_HOME"));
    tshark.setProcessEnvironment(environment);
    tshark.start(QStringLiteral("tshark"), QStringList{QStringLiteral("-n"), QStringLiteral("-2"),
                                                       QStringLiteral("-r"), file.fileName()} +
                                               options);
    if (!tshark.waitForFinished(patienceMs) || tshark.exitStatus() != QProcess::NormalExit ||
        tshark.exitCode() != 0) {
        trouble = "tshark failed: " + tshark.errorString();
    }
    for (const QByteArray& line : tshark.readAllStandardError().split('\n')) {
        if (!line.isEmpty() && !line.startsWith("Running as user")) {
            trouble += QString::fromUtf8(line);
        }
    }
    QByteArray output = tshark.readAllStandardOutput();
    if (output.contains("Lua Error")) {
        trouble += QString::fromUtf8(output.mid(output.indexOf("Lua Error"), 300));
    }
    return output;
}

Dissection::Dissection(const QByteArray& capture, const QStringList& options)
{
    const QByteArray output = runTshark(
        capture, QStringList{QStringLiteral("-T"), QStringLiteral("pdml")} + options, trouble);
    QXmlStreamReader xml(output);
    xml.readNextStartElement();
    while (xml.readNextStartElement()) {
        packets.emplace_back();
        packets.back().number = static_cast<int>(packets.size());
        readPacket(xml, packets.back(), trouble);
    }
    if (xml.hasError()) {
        trouble += xml.errorString();
    }
}

std::vector<ShownFields> Dissection::frames() const
{
    std::vector<ShownFields> all;
    QMap<int, std::size_t> lastOfPacket;
    for (const ShownPacket& packet : packets) {
        for (const ShownFields& item : packet.items) {
            if (item.contains(QStringLiteral("form"))) {
                lastOfPacket[packet.number] = all.size();
                all.push_back(item);
            } else if (item.contains(QStringLiteral("block.of")) &&
                       item.contains(QStringLiteral("block.length"))) {
                ShownFields& head = all.at(lastOfPacket.value(item["block.of"].toInt()));
                for (auto field = item.begin(); field != item.end(); ++field) {
                    head[field.key()] = field.value();
                }
            }
        }
    }
    return all;
}
