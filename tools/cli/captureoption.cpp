// SPDX-License-Identifier: MIT
#include "captureoption.h"

#include "linkwatchers.h"
#include "output.h"
#include "toolerror.h"

#include <CLI/CLI.hpp>

#include <utility>

CaptureOption::~CaptureOption()
{
    if (captured) {
        captured->close();
        if (const QString text = loss(); !text.isEmpty()) {
            output::error("coremanage: " + text);
        }
    }
}

void CaptureOption::addTo(CLI::App& app)
{
    isOutputFree = app.get_name() == "capture";
    app.add_option("-w,--write", path,
                   isOutputFree
                       ? "write what is sent and received for Wireshark; -: standard output"
                       : "write what is sent and received for Wireshark")
        ->type_name("FILE");
}

void CaptureOption::begin()
{
    if (!isGiven()) {
        return;
    }
    if (path == "-" && !isOutputFree) {
        throw BadInput("--write: standard output has the results: give a file, or use capture");
    }
    captured = std::make_shared<CaptureFile>();
    if (!captured->open(QString::fromStdString(path))) {
        throw BadInput("--write: " + std::exchange(captured, nullptr)->error());
    }
}

void CaptureOption::watch(const QString& link)
{
    if (captured) {
        linkwatchers::remove(watcher);
        watcher = std::make_shared<LinkCapture>(captured, link);
        linkwatchers::add(watcher);
    }
}

qint64 CaptureOption::finish()
{
    captured->close();
    const QString text = loss();
    const qint64 written = std::exchange(captured, nullptr)->written();
    if (!text.isEmpty()) {
        throw ToolError(exitcode::failed, text);
    }
    return written;
}

QString CaptureOption::loss() const
{
    const QString because = captured->error();
    const qint64 lost = captured->dropped();
    return lost == 0 && because.isEmpty()
               ? QString()
               : QString("%1: %2 events are not in it: %3")
                     .arg(QString::fromStdString(path))
                     .arg(lost)
                     .arg(because.isEmpty() ? "they came faster than it could be written"
                                            : because);
}
