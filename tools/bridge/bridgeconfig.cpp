// SPDX-License-Identifier: MIT
#include "bridgeconfig.h"

#include "bridgeschema.h"
#include "jsonschema.h"
#include "toolerror.h"
#include "typed.h"
#include "utility_manage.h"

#include <QDir>
#include <QFileInfo>
#include <QHash>
#include <QJsonArray>

#include <stdexcept>

namespace
{

constexpr int fileLimit = 4 << 20; // bytes of a configuration
constexpr int secretLimit = 65536; // bytes of a password or a key

class Reader
{
public:
    explicit Reader(const QString& file) : path(file) {}

    BridgeConfig read();

private:
    [[noreturn]] void refuse(const QString& what) const { throw BadInput(path + ": " + what); }
    QString filePath(const QJsonObject& object, const char* key, const QString& place) const;
    void requireSecret(const QString& file, const QString& place) const;
    void readBroker(const QJsonObject& object);
    void readTls(const QJsonObject& object);
    BridgeConfig::Link readLink(const QJsonObject& object, const QString& place);
    void readAllowed(const QJsonValue& written, const QString& place, BridgeConfig::Link& link);
    void checkLinks();

    const QString path;
    BridgeConfig config;
};

QString Reader::filePath(const QJsonObject& object, const char* key, const QString& place) const
{
    const QString name = object.value(QLatin1String(key)).toString();
    if (name.isEmpty()) {
        return {};
    }
    QString found = QFileInfo(path).dir().filePath(name);
    (void)typed::file(path + ": " + place + '.' + key, found, secretLimit * 16);
    return found;
}

// A group may have it: that of the service.
void Reader::requireSecret(const QString& file, const QString& place) const
{
    constexpr auto others = QFileDevice::ReadOther | QFileDevice::WriteOther;
    if (!file.isEmpty() && (QFileInfo(file).permissions() & others) != 0) {
        refuse(QString("%1: everybody may read or write %2: chmod o= %2").arg(place, file));
    }
}

void Reader::readBroker(const QJsonObject& object)
{
    BridgeConfig::Broker& broker = config.broker;
    broker.host = object.value("host").toString();
    broker.clientId = object.value("client_id").toString();
    broker.tls = object.contains("tls");
    broker.port = object.value("port").toInt(broker.tls ? 8883 : broker.port);
    broker.keepAlive = std::chrono::seconds(
        object.value("keep_alive_s").toInt(static_cast<int>(broker.keepAlive.count())));
    broker.session = std::chrono::seconds(
        object.value("session_s").toInt(static_cast<int>(broker.session.count())));
    broker.user = object.value("user").toString();
    const QString password = filePath(object, "password_file", "broker");
    if (!password.isEmpty()) {
        const QString place = "broker.password_file";
        if (broker.user.isEmpty()) {
            refuse("broker: \"user\" is missing: whose password it is");
        }
        requireSecret(password, place);
        broker.password = typed::file(path + ": " + place, password, secretLimit);
        broker.password.truncate(broker.password.indexOf('\n') < 0 ? broker.password.size()
                                                                   : broker.password.indexOf('\n'));
    }
    readTls(object.value("tls").toObject());
}

void Reader::readTls(const QJsonObject& object)
{
    BridgeConfig::Broker& broker = config.broker;
    const QString place = "broker.tls";
    broker.ca = filePath(object, "ca", place);
    broker.certificate = filePath(object, "certificate", place);
    broker.key = filePath(object, "key", place);
    if (broker.certificate.isEmpty() != broker.key.isEmpty()) {
        refuse(place + ": give certificate and key together");
    }
    requireSecret(broker.key, place + ".key");
}

void Reader::readAllowed(const QJsonValue& written, const QString& place, BridgeConfig::Link& link)
{
    if (written.isString()) {
        link.allowed.allowAll();
        return;
    }
    const QJsonArray list = written.toArray();
    if (!list.isEmpty() && link.target->kind().fields == FieldSet::OsdFrame) {
        refuse(
            QString("%1: commands of osd:// have no CMD: only \"all\" can be allowed").arg(place));
    }
    for (int i = 0; i < list.size(); ++i) {
        const QStringList codes = list.at(i).toString().split('/');
        const auto code = [&](int which) {
            return static_cast<quint8>(typed::number(QString("%1: %2[%3]").arg(path, place).arg(i),
                                                     codes.at(which), 0, 255));
        };
        codes.size() == 1 ? link.allowed.allow(code(0)) : link.allowed.allow(code(0), code(1));
    }
}

BridgeConfig::Link Reader::readLink(const QJsonObject& object, const QString& place)
{
    BridgeConfig::Link link;
    link.name = object.value("name").toString();
    link.address = object.value("address").toString();
    try {
        link.target = linkregistry::target(link.address);
    } catch (const BadInput& wrong) {
        refuse(QString("%1.address: %2").arg(place, QString::fromUtf8(wrong.what())));
    }
    readAllowed(object.value("allow"), place + ".allow", link);
    link.blockLimit = object.value("block_limit").toInt(link.blockLimit);
    link.rate = object.value("rate").toInt(link.rate);
    link.queueLimit = object.value("queue").toInt(link.queueLimit);
    return link;
}

// Two links to one device would take each other's replies.
void Reader::checkLinks()
{
    QHash<QString, QString> places;
    places.insert(config.broker.clientId, "broker.client_id");
    for (std::size_t i = 0; i < config.links.size(); ++i) {
        const BridgeConfig::Link& link = config.links[i];
        const QString here = QString("links[%1]").arg(i);
        const auto requireNew = [&](const QString& key, const QString& what) {
            if (places.contains(key)) {
                refuse(
                    QString("%1: %2 is that of %3: give another one").arg(here, what, places[key]));
            }
            places.insert(key, here);
        };
        requireNew(link.name, QString("the name \"%1\"").arg(link.name));
        const QString scheme = link.target->kind().scheme;
        for (const LinkPlace& place : link.target->places()) {
            const QString device = place.isNetwork() ? place.host.toString()
                                   : !place.node.isEmpty()
                                       ? place.node
                                       : QString("%1:%2").arg(place.vendorId).arg(place.productId);
            requireNew((place.node.isEmpty() ? scheme : QString("line")) + "://" + device,
                       QString("the device of %1, whatever its port,").arg(link.address));
        }
    }
}

BridgeConfig Reader::read()
{
    QJsonObject file;
    try {
        file = jsonschema::parsed(typed::file("FILE", path, fileLimit), BridgeConfig::schema());
    } catch (const std::invalid_argument& wrong) {
        refuse(QString::fromUtf8(wrong.what()));
    }
    const QJsonValue type = file.value("device_type");
    if (!type.isUndefined()) {
        Utility_Manage::setDeviceType(static_cast<model_GlobalEnum::DeviceType>(
            type.isString() ? type.toString().toInt(nullptr, 16) : type.toInt()));
    }
    readBroker(file.value("broker").toObject());
    const auto seconds = [&file](const char* key, std::chrono::seconds otherwise) {
        return std::chrono::seconds(
            file.value(QLatin1String(key)).toInt(static_cast<int>(otherwise.count())));
    };
    config.prefix = file.value("prefix").toString(config.prefix);
    config.sendStale = file.value("send_stale").toBool();
    config.duplicates = seconds("duplicates_s", config.duplicates);
    config.counters = seconds("counters_s", config.counters);
    config.queueLimit =
        qint64{1024} * file.value("queue_kib").toInt(static_cast<int>(config.queueLimit / 1024));
    const QJsonArray links = file.value("links").toArray();
    for (int i = 0; i < links.size(); ++i) {
        config.links.push_back(readLink(links.at(i).toObject(), QString("links[%1]").arg(i)));
    }
    checkLinks();
    return std::move(config);
}

} // namespace

QString BridgeConfig::topic(const QString& name, const char* leaf) const
{
    return prefix + '/' + name + '/' + QLatin1String(leaf);
}

BridgeConfig BridgeConfig::read(const QString& path)
{
    return Reader(path).read();
}

QByteArray BridgeConfig::schema()
{
    return bridgeSchema;
}
