// SPDX-License-Identifier: MIT

// ThreadSanitizer does not see the locks inside these libraries, which emulate the HID devices and
// are not built for it.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions()
{
    return "race:libumockdev.so\n"
           "race:libgobject-2.0.so\n"
           "race:libglib-2.0.so\n";
}
