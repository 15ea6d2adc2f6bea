// Tests the settings panel over a store of its own: the test plays the TV.
#include <ZOLTypedKeys.h>
#include <ZOLVconfKeys.h>
#include <poll.h>
#include <sys/eventfd.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>

#include "settings_panel.h"

// Waits until the panel has woken its loop, for at most five seconds.
bool isWoken(int woken)
{
    pollfd waiting{woken, POLLIN, 0};
    eventfd_t changes = 0;
    const bool inTime = poll(&waiting, 1, 5000) == 1 && eventfd_read(woken, &changes) == 0;
    if (!inTime) {
        std::cerr << "the panel has not woken the loop" << std::endl;
    }
    return inTime;
}

bool shows(const std::string& expected, const SettingsPanel& panel)
{
    const std::string text = panel.text();
    if (text != expected) {
        std::cerr << "expected: " << expected << "\nshown: " << text << std::endl;
    }
    return text == expected;
}

bool test()
{
    setString(ZOLVconfKey::OSDCountry, "DE");  // what the TV writes, and apps may not
    setInt(ZOLVconfKey::BackgroundVolume, 5);
    const int woken = eventfd(0, EFD_CLOEXEC);
    const SettingsPanel panel([woken] { eventfd_write(woken, 1); });
    bool passed = panel.follows() && shows("off, -, -, DE, volume 5", panel);

    ZOLSystemData::SetZOLLanguage("de-DE");
    passed = passed && isWoken(woken) && shows("off, de-DE, -, DE, volume 5", panel);
    setInt(ZOLVconfKey::BackgroundVolume, 7);
    return passed && isWoken(woken) && shows("off, de-DE, -, DE, volume 7", panel);
}

int main()
{
    char store[] = "/tmp/panel-XXXXXX";
    if (mkdtemp(store) == nullptr) {
        std::cerr << "/tmp cannot be written to" << std::endl;
        return 1;
    }
    setenv("ZOL_VCONF_DIR", store, 1);  // before the process uses the store, which reads it once
    const bool passed = test();
    std::filesystem::remove_all(store);
    std::cout << (passed ? "passed" : "failed") << std::endl;
    return passed ? 0 : 1;
}
