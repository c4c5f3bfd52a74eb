// SPDX-License-Identifier: MIT
#include "commands.h"
#include "hidemulation.h"

#include <QCoreApplication>

#include <csignal>

int main(int argc, char** argv)
{
    hidemulation::prepare(argv);
    std::signal(SIGPIPE, SIG_IGN); // lost output is noticed where it is written
    const QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName("coremanage");
    return commandline::run(argc, argv);
}
