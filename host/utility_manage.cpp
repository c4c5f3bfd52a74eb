// SPDX-License-Identifier: MIT
#include "utility_manage.h"

#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

#include <spdlog/logger.h>
#include <spdlog/sinks/rotating_file_sink.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

namespace
{

constexpr qint64 smallestLog = 1024;
constexpr int mostLogFiles = 1000;

std::atomic<model_GlobalEnum::DeviceType> currentDeviceType{model_GlobalEnum::DeviceUnknown};

struct Log {
    std::mutex lock;
    std::shared_ptr<spdlog::logger> logger;
    QString path;
    qint64 maxBytes = Utility_Manage::defaultMaxBytes;
    int maxFiles = Utility_Manage::defaultMaxFiles;
    bool failureReported = false;
    bool isBroken = false; // to be opened again, with the next line
};

// Never destroyed: a link's thread may still log while the process ends.
Log& log()
{
    static Log* const instance = new Log;
    return *instance;
}

void reportOnce(Log& target, const std::string& reason)
{
    if (!target.failureReported) {
        target.failureReported = true;
        std::fprintf(stderr, "log: %s\n", reason.c_str());
    }
}

std::shared_ptr<spdlog::logger> openLogger(const QString& path, qint64 maxBytes, int maxFiles)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    auto sink = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(
        path.toLocal8Bit().toStdString(), static_cast<std::size_t>(maxBytes),
        static_cast<std::size_t>(maxFiles));
    auto logger = std::make_shared<spdlog::logger>("core_manage", std::move(sink));
    logger->set_pattern("%Y-%m-%d %H:%M:%S.%e [%t] %v");
    logger->flush_on(spdlog::level::info);
    logger->set_error_handler([](const std::string& reason) {
        const std::lock_guard lock(log().lock);
        reportOnce(log(), reason);
        log().isBroken = true;
    });
    return logger;
}

std::shared_ptr<spdlog::logger> currentLogger()
{
    Log& target = log();
    const std::lock_guard lock(target.lock);
    if (!target.logger || target.isBroken) {
        const QString path =
            target.path.isEmpty()
                ? QStandardPaths::writableLocation(QStandardPaths::AppLocalDataLocation) +
                      QStringLiteral("/core_manage.log")
                : target.path;
        try {
            target.logger = openLogger(path, target.maxBytes, target.maxFiles);
            target.path = path;
            target.isBroken = false;
        } catch (const std::exception& error) {
            reportOnce(target, error.what());
        }
    }
    return target.logger;
}

bool isPlain(QChar c)
{
    return c.unicode() >= 0x20 && c.unicode() < 0x7f && c != QLatin1Char('\\');
}

bool endsALine(char32_t code)
{
    return code == 0x2028 || code == 0x2029;
}

QString escaped(const QString& text)
{
    QString line;
    line.reserve(text.size() + 16);
    for (int i = 0; i < text.size(); ++i) {
        const QChar c = text.at(i);
        const ushort code = c.unicode();
        if (code == '\\') {
            line += QLatin1String("\\\\");
        } else if (code == '\n') {
            line += QLatin1String("\\n");
        } else if (code == '\r') {
            line += QLatin1String("\\r");
        } else if (code == '\t') {
            line += QLatin1String("\\t");
        } else if (code < 0x20 || (code >= 0x7f && code < 0xa0)) { // C0, DEL and C1 controls
            line += QStringLiteral("\\x%1").arg(code, 2, 16, QLatin1Char('0'));
        } else if (c.isHighSurrogate() && i + 1 < text.size() && text.at(i + 1).isLowSurrogate()) {
            line += c;
            line += text.at(++i);
        } else if (c.isSurrogate() || endsALine(code)) {
            line += QStringLiteral("\\u%1").arg(code, 4, 16, QLatin1Char('0'));
        } else {
            line += c;
        }
    }
    return line;
}

} // namespace

void Utility_Manage::writeLog(QString text)
{
    try {
        const auto logger = currentLogger();
        if (!logger) {
            return;
        }
        bool plain = true;
        for (const QChar c : text) {
            plain = plain && isPlain(c);
        }
        const QByteArray line = plain ? text.toLatin1() : escaped(text).toUtf8();
        logger->info(
            spdlog::string_view_t(line.constData(), static_cast<std::size_t>(line.size())));
    } catch (const std::exception& error) {
        const std::lock_guard lock(log().lock);
        reportOnce(log(), error.what());
    }
}

bool Utility_Manage::setLogFile(const QString& path, qint64 maxBytes, int maxFiles)
{
    if (path.isEmpty() || maxBytes < smallestLog || maxFiles < 0 || maxFiles > mostLogFiles) {
        std::fprintf(stderr, "log: \"%s\", %lld bytes, %d older files: refused\n",
                     path.toLocal8Bit().constData(), static_cast<long long>(maxBytes), maxFiles);
        return false;
    }
    try {
        auto opened = openLogger(path, maxBytes, maxFiles);
        Log& target = log();
        const std::lock_guard lock(target.lock);
        target.logger = std::move(opened);
        target.path = path;
        target.maxBytes = maxBytes;
        target.maxFiles = maxFiles;
        target.failureReported = false;
        target.isBroken = false;
        return true;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "log: %s\n", error.what());
        return false;
    }
}

QString Utility_Manage::logFile()
{
    const std::lock_guard lock(log().lock);
    return log().path;
}

qint16 Utility_Manage::combineTwoByte(quint8 first, quint8 second)
{
    return static_cast<qint16>(second * 256 + first);
}

quint8 Utility_Manage::getHighByte(quint16 value)
{
    return static_cast<quint8>(value >> 8);
}

quint8 Utility_Manage::getLowByte(quint16 value)
{
    return static_cast<quint8>(value & 0xff);
}

model_GlobalEnum::DeviceType Utility_Manage::getDeviceType()
{
    return currentDeviceType.load(std::memory_order_relaxed);
}

void Utility_Manage::setDeviceType(model_GlobalEnum::DeviceType type)
{
    currentDeviceType.store(type, std::memory_order_relaxed);
}
