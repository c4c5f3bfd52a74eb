// SPDX-License-Identifier: MIT
#include "netns.h"
#include "utility_manage.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QTemporaryDir>

#include <cstdio>
#include <thread>

// ThreadSanitizer does not see the locks inside Qt and its event loop, which are not built for it:
// what they do with their own memory under them looks like a race, and so does what a queued slot
// reads of the record that another thread has emitted. The same goes for the emulated HID devices,
// and for hidapi's error text, which the first failures of a read and a write at a time may hand
// from one to the other.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions()
{
    return "called_from_lib:libQt5Core.so\n"
           "called_from_lib:libQt5Network.so\n"
           "called_from_lib:libQt5SerialPort.so\n"
           "called_from_lib:libglib-2.0.so\n"
           "race:libgobject-2.0.so\n"
           "called_from_lib:libhidapi-hidraw.so\n"
           "race:libumockdev.so\n"
           "race:QObjectPrivate::ConnectionData::deleteOrphaned\n"
           "race:OsdConnection::onSendDatatoDevice\n"
           "race:QMetaTypeFunctionHelper<model_OsdParam\n";
}

int main(int argc, char** argv)
{
    // Fixed local ports are this process's own, and nothing leaves the machine.
    if (!netns::isolate()) {
        std::fprintf(stderr, "no network namespace of its own: tests share the machine's ports\n");
    }
    std::thread([] {}).join(); // a sanitizer's own thread starts with the first one
    QCoreApplication application(argc, argv);
    const QTemporaryDir logDirectory;
    Utility_Manage::setLogFile(logDirectory.filePath(QStringLiteral("test.log")), 64 * 1024 * 1024);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
