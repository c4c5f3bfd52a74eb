// SPDX-License-Identifier: MIT
#pragma once

#include "tests/tools/toolprocess.h"

#include <gtest/gtest.h>

#include <QJsonDocument>
#include <QJsonObject>

#include <vector>

/// A simulated device for an example: coremanage simulate LINK --json, with options.
class ExampleDevice
{
public:
    explicit ExampleDevice(const QString& link, const char* options = "")
        : process(words("simulate " + link + " --json " + options))
    {
        EXPECT_TRUE(process.says("simulating")) << process.error().toStdString();
    }

    QString address() const { return process.json().value("simulating").toString(); }
    QString port() const { return address().section(':', -1); }

    void unplug() { process.interrupt(); }

    /// Ends it and returns the commands that it got.
    std::vector<QJsonObject> commands()
    {
        unplug();
        process.exitCode();
        std::vector<QJsonObject> objects;
        for (const QString& line : process.lines().mid(1)) {
            objects.push_back(QJsonDocument::fromJson(line.toUtf8()).object());
        }
        return objects;
    }

    ToolProcess process;
};

/// The command that starts an example, with this environment.
inline QStringList example(const char* name, const QStringList& environment = {})
{
    return QStringList("env") + environment + QStringList(QString(EXAMPLES "/") + name);
}
