// SPDX-License-Identifier: MIT
// What LeakSanitizer is to know of targets that parse JSON.
extern "C" const char* __lsan_default_options();
extern "C" const char* __lsan_default_suppressions();

extern "C" const char* __lsan_default_options()
{
    return "print_suppressions=0";
}

// Qt 5 loses the first of two members with one name, and whoever allocates through Qt has no frame
// of its own in the leak's trace.
extern "C" const char* __lsan_default_suppressions()
{
    return "leak:libQt5Core";
}
