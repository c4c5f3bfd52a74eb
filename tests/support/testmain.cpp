// SPDX-License-Identifier: MIT
#include "netns.h"
#include "utility_manage.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QTemporaryDir>

#include <cstdio>
#include <thread>

int main(int argc, char** argv)
{
    // Fixed local ports are this process's own, and nothing leaves the machine.
    if (!netns::isolate()) {
        std::fprintf(stderr, "no network namespace of its own: tests share the machine's ports\n");
    }
    std::thread([] {}).join(); // a sanitizer's own thread starts with the first one
    QCoreApplication application(argc, argv);
    const QTemporaryDir logDirectory;
    Utility_Manage::setLogFile(logDirectory.filePath(QStringLiteral("test.log")),
                               qint64{64} * 1024 * 1024);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
