// SPDX-License-Identifier: MIT
#include "tooldecode.h"

#include "commands.h"
#include "toolerror.h"

#include <CLI/CLI.hpp>

#include <QFile>
#include <QJsonDocument>

#include <sys/mman.h>
#include <unistd.h>

ToolDecode::ToolDecode()
    : standardOutput(dup(STDOUT_FILENO)), file(memfd_create("decoded", MFD_CLOEXEC))
{
}

ToolDecode::~ToolDecode()
{
    close(standardOutput);
    close(file);
}

QJsonObject ToolDecode::operator()(const QByteArray& frame, Format format)
{
    std::string arguments = "decode --json " + frame.toHex().toStdString();
    if (format != Format::Text) {
        arguments += format == Format::Binary ? " --binary" : " --osd";
    }
    if (ftruncate(file, 0) != 0 || lseek(file, 0, SEEK_SET) != 0) {
        return {};
    }
    dup2(file, STDOUT_FILENO);
    try {
        CLI::App application;
        int code = 0;
        commands::addDecode(application, code);
        application.parse(arguments);
    } catch (const ToolError&) {
        // it has printed what the frame is, and says what is wrong with it
    } catch (...) {
        dup2(standardOutput, STDOUT_FILENO);
        throw;
    }
    dup2(standardOutput, STDOUT_FILENO);
    QFile printed;
    printed.open(file, QIODevice::ReadOnly);
    printed.seek(0);
    return QJsonDocument::fromJson(printed.readAll()).object();
}
