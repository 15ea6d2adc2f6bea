// A plugin that follows the web apps that are installed, for watch_test.

#include "ZOLWatch.h"

// Tells of them from here on, or no more.
extern "C" __attribute__((visibility("default"))) void follow(void (*tell)(const char* value))
{
    static ZOLWatch watch;
    watch = {};
    if (tell != nullptr) {
        watch = ZOLWatch::WebAppInstall([tell](const std::string& value) { tell(value.c_str()); });
    }
}
