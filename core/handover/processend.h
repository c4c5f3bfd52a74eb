// SPDX-License-Identifier: MIT
#pragma once

/// The end of the process as the library's detached threads see it.
///
/// When main returns, the host's and Qt's static objects go while detached threads still run. What
/// those threads still have to deliver gets a moment (200 ms); after that they touch nothing of the
/// host or of Qt any more. All operations may be called by any thread.
namespace processend
{

/// Makes what watches for the end, once. It must be made after the static objects that the threads
/// use and before the first thread that uses them; startDetached does that.
void watch() noexcept;

/// True once the process ends: endless loops stop, deliveries go on.
bool begun() noexcept;

/// True from the moment when nothing of the host or of Qt may be touched any more.
bool over() noexcept;

/// A thread that the end of the process waits for, 200 ms before over() and as long behind it.
class Presence
{
public:
    Presence() noexcept;
    ~Presence();
    Presence(const Presence&) noexcept;
    Presence& operator=(const Presence&) = delete;
};

/// What a thread of the host's does for the library, on the stack: the end of the process waits for
/// it as for a thread of the library's, but not for the thread that ends the process.
class Call
{
public:
    Call() noexcept;
    ~Call();
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    /// Whether the host and Qt may be touched, until the object goes.
    explicit operator bool() const { return isInTime; }

private:
    bool isInTime;
};

} // namespace processend
