// SPDX-License-Identifier: MIT
#include "linkcapture.h"

#include "capturewriter.h"

#include <chrono>
#include <optional>
#include <utility>

namespace
{

using What = CaptureRecord::What;

// Nothing for what a reader of the file finds out by itself.
std::optional<What> whatOf(LinkEvent::Kind kind)
{
    switch (kind) {
    case LinkEvent::Kind::Sent:
        return What::Sent;
    case LinkEvent::Kind::SendFailed:
        return What::SendFailed;
    case LinkEvent::Kind::Received:
        return What::Received;
    case LinkEvent::Kind::Opened:
        return What::Opened;
    case LinkEvent::Kind::Closed:
        return What::Closed;
    case LinkEvent::Kind::Lost:
        return What::Lost;
    case LinkEvent::Kind::Reinitialised:
        return What::Reinitialised;
    default:
        return std::nullopt;
    }
}

} // namespace

CaptureFile::CaptureFile(qint64 limit) : writer(std::make_unique<CaptureWriter>(limit)) {}
CaptureFile::~CaptureFile() = default;

bool CaptureFile::open(const QString& path)
{
    return writer->open(path);
}

void CaptureFile::close()
{
    writer->close();
}

QString CaptureFile::error() const
{
    return writer->error();
}

qint64 CaptureFile::written() const
{
    return writer->written();
}

qint64 CaptureFile::dropped() const
{
    return writer->dropped();
}

LinkCapture::LinkCapture(std::shared_ptr<CaptureFile> file, const QString& link)
    : captureFile(std::move(file)), name(link.toUtf8())
{
}

LinkCapture::~LinkCapture() = default;

void LinkCapture::onEvent(const LinkEvent& event)
{
    const auto what = whatOf(event.kind);
    if (!what) {
        return;
    }
    CaptureRecord record;
    record.time =
        std::chrono::duration_cast<std::chrono::nanoseconds>(event.time.time_since_epoch()).count();
    record.medium = CaptureRecord::mediumOf(name);
    record.what = *what;
    record.link = name;
    if (record.medium == CaptureRecord::Medium::Osd && !event.peer.isEmpty()) {
        record.link = QStringLiteral("osd://%1:%2").arg(event.peer).arg(event.port).toUtf8();
    }
    record.device = {QHostAddress(event.peer), event.port};
    record.bytes = event.bytes;
    captureFile->writer->add(std::move(record));
}
