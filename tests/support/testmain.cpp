// SPDX-License-Identifier: MIT
#include "netns.h"
#include "utility_manage.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QNetworkProxy>
#include <QProcess>
#include <QTemporaryDir>

#include <cstdio>
#include <string>
#include <thread>

namespace
{

bool namesOneCase(const std::string& filter)
{
    return filter.find_first_of("*?:-") == std::string::npos;
}

QStringList casesOf(const QString& filter)
{
    QProcess self;
    self.start(QCoreApplication::applicationFilePath(), {filter, "--gtest_list_tests"});
    self.waitForFinished(-1);
    QStringList cases;
    QString suite;
    const QStringList lines = QString::fromUtf8(self.readAllStandardOutput()).split('\n');
    for (const QString& line : lines) {
        const QString name = line.section('#', 0, 0).trimmed();
        if (!line.startsWith(' ')) {
            suite = name;
        } else if (!name.isEmpty() && !name.startsWith("DISABLED_")) {
            cases << suite + name;
        }
    }
    return cases;
}

// The host's queue, the fixed ports and what the library starts once are the process's: each case
// runs in a process of its own.
int runEachInItsProcess(const std::string& filter)
{
    const QStringList cases = casesOf("--gtest_filter=" + QString::fromStdString(filter));
    std::printf("%d cases, each in a process of its own\n", static_cast<int>(cases.size()));
    QStringList failed;
    for (const QString& name : cases) {
        std::fflush(stdout);
        if (QProcess::execute(QCoreApplication::applicationFilePath(),
                              {"--gtest_filter=" + name, "--gtest_brief=1"}) != 0) {
            failed << name;
        }
    }
    for (const QString& name : failed) {
        std::printf("failed: %s\n", qPrintable(name));
    }
    std::printf("%d of %d passed\n", static_cast<int>(cases.size() - failed.size()),
                static_cast<int>(cases.size()));
    return failed.isEmpty() && !cases.isEmpty() ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    const std::string filter = GTEST_FLAG_GET(filter);
    if (!GTEST_FLAG_GET(list_tests) && !namesOneCase(filter)) {
        const QCoreApplication application(argc, argv);
        return runEachInItsProcess(filter);
    }
    // Fixed local ports are this process's own, and nothing leaves the machine.
    if (!netns::isolate()) {
        std::fprintf(stderr, "no network namespace of its own: tests share the machine's ports\n");
    }
    std::thread([] {}).join(); // a sanitizer's own thread starts with the first one
    const QCoreApplication application(argc, argv);
    // Qt 6 looks for the system's proxies in a thread of its own.
    QNetworkProxy::setApplicationProxy(QNetworkProxy(QNetworkProxy::NoProxy));
    const QTemporaryDir logDirectory;
    Utility_Manage::setLogFile(logDirectory.filePath(QStringLiteral("test.log")),
                               qint64{64} * 1024 * 1024);
    return RUN_ALL_TESTS();
}
