// SPDX-License-Identifier: MIT
#pragma once

/// @file

#include "core_manage_export.h"

#include <cstdint>

class ICoreBase;
class ICoreOsdBase;

/// The kind of device link. Any other value makes a UDP link.
enum ConnType : std::int32_t {
    ConnUsb = 0,        ///< Core_USB
    ConnSerial = 1,     ///< Core_SerialPort
    ConnUdp = 2,        ///< core_UDP
    ConnVelaSerial = 3, ///< Vela_Core_SerialPort
};

/// The kind of on-screen-display link. Every value makes TCP clients.
enum ConnOsdType : std::int32_t {
    ConnOsdTcp = 0, ///< Core_Osd_TcpSocket
};

/// Makes links and keeps the two shared ones. To be called from one thread, the application's main
/// thread; it takes no lock and deletes nothing when the library is unloaded. It throws only
/// std::bad_alloc, and what a link lacks (a port, a thread) shows in the link's own operations.
class CORE_MANAGE_EXPORT CoreFactory
{
public:
    /// The shared device link, made anew: the one before, if any, is deleted first, a host's own
    /// included, and takes as long as its destructor. While the new one is being made iCORE keeps
    /// its old value: if that throws, iCORE designates a destroyed object.
    static ICoreBase* creatCoreObj(ConnType type);

    /// The shared endpoint manager, made anew: the one before, if any, is deleted first, a host's
    /// own included; iOsdCore is null while the new one is made.
    static ICoreOsdBase* createOsdCoreObj(ConnOsdType type);

    /// A new link of its own; the caller owns it. The shared ones are not touched.
    static ICoreBase* creatCoreObjInstance(ConnType type);

    /// A new endpoint manager of its own; the caller owns it. Its endpoints take records only from
    /// the shared manager.
    static ICoreOsdBase* creatCoreObjInstance(ConnOsdType type);

    static ICoreBase* iCORE;       ///< the shared device link; null until asked for
    static ICoreOsdBase* iOsdCore; ///< the shared endpoint manager; null until asked for. A host
                                   ///< that assigns it does so on the thread that opens endpoints.
};
