// SPDX-License-Identifier: MIT

// ThreadSanitizer does not see the locks inside Qt, its event loop, the C library's time zone and
// what emulates the HID devices, which are not built for it: what they do with their own memory
// under them looks like a race, and so does what a queued slot reads of the record that another
// thread has emitted.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions()
{
    return "called_from_lib:libQt5Core.so\n"
           "called_from_lib:libQt5Network.so\n"
           "called_from_lib:libQt5SerialPort.so\n"
           "called_from_lib:libglib-2.0.so\n"
           "race:libglib-2.0.so\n"
           "race:libgobject-2.0.so\n"
           "race:libumockdev.so\n"
           "race:tzset_internal\n"
           "race:QObjectPrivate::ConnectionData::deleteOrphaned\n"
           "race:QMetaTypeFunctionHelper<model_OsdParam\n";
}
