// SPDX-License-Identifier: MIT
#include "hidemulation.h"

#include "emulatedhid.h"

#include <QFileInfo>

#include <cerrno>
#include <cstring>

#include <dlfcn.h>
#include <unistd.h>

namespace
{

constexpr const char* libraries[] = {"libumockdev.so.0", "libumockdev-preload.so.0"};

bool isWanted(char** arguments)
{
    bool simulates = false;
    bool isUsb = false;
    for (char** argument = arguments + 1; *argument != nullptr; ++argument) {
        simulates = simulates || std::strcmp(*argument, "simulate") == 0;
        isUsb = isUsb || qstrnicmp(*argument, "usb:", 4) == 0;
        if (std::strcmp(*argument, "demo") == 0) {
            return true;
        }
    }
    return (simulates && isUsb) || qEnvironmentVariableIsSet(HidTestbed::locationVariable);
}

QString emulating()
{
    const QFileInfo self("/proc/self/exe");
    return QFileInfo(self.canonicalFilePath()).path() + '/' + QStringLiteral(COREMANAGE_EMULATING);
}

// Tried here, where it can be said in plain words; there the loader ends the program.
QString missingLibrary()
{
    for (const char* name : libraries) {
        void* const library = dlopen(name, RTLD_LAZY | RTLD_LOCAL);
        if (library == nullptr) {
            return QString::fromLocal8Bit(dlerror());
        }
        dlclose(library);
    }
    return {};
}

} // namespace

void hidemulation::prepare(char** arguments)
{
    if (isWanted(arguments) && obstacle().isEmpty()) {
        execv(emulating().toLocal8Bit().constData(), arguments);
    }
}

QString hidemulation::obstacle()
{
    const QString path = QFileInfo(emulating()).canonicalFilePath();
    if (path.isEmpty()) {
        return QString("this coremanage simulates no USB devices: it was built without "
                       "umockdev (there is no %1)")
            .arg(emulating());
    }
    const QString missing = missingLibrary();
    if (!missing.isEmpty()) {
        return QString("USB devices are simulated with umockdev: sudo apt install umockdev "
                       "libumockdev0 (%1)")
            .arg(missing);
    }
    if (access(path.toLocal8Bit().constData(), X_OK) != 0) {
        return QString("%1: %2").arg(path, QString::fromLocal8Bit(std::strerror(errno)));
    }
    return {};
}

std::unique_ptr<Simulation> hidemulation::device(quint16, quint16, const SimulatedDevice::Settings&)
{
    return nullptr;
}
