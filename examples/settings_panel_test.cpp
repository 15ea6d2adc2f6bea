// Tests the settings panel over a store of its own: the test plays the TV.
#include <ZOLTypedKeys.h>
#include <ZOLVconfKeys.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <iostream>

#include "settings_panel.h"

// Keeps what the panel shows, and waits until it shows a text.
class Screen {
public:
    void show(const std::string& text)
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        text_ = text;
        changed_.notify_all();
    }
    bool comesToShow(const std::string& text)
    {
        std::unique_lock<std::mutex> guard(mutex_);
        const bool shown = changed_.wait_for(guard, std::chrono::seconds(5), [&] { return text_ == text; });
        if (!shown) {
            std::cerr << "expected: " << text << "\nshown: " << text_ << std::endl;
        }
        return shown;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::string text_;
};

int main()
{
    char store[] = "/tmp/panel-XXXXXX";
    if (mkdtemp(store) == nullptr) {
        std::cerr << "/tmp cannot be written to" << std::endl;
        return 1;
    }
    setenv("ZOL_VCONF_DIR", store, 1);  // before the process uses the store, which reads it once
    bool passed = false;
    {
        setString(ZOLVconfKey::OSDCountry, "DE");  // what the TV writes, and apps may not
        setInt(ZOLVconfKey::BackgroundVolume, 5);
        Screen screen;
        const SettingsPanel panel([&](const std::string& text) { screen.show(text); });
        passed = panel.follows() && screen.comesToShow("off, -, -, DE, volume 5");

        ZOLSystemData::SetZOLLanguage("de-DE");
        ZOLSystemData::SetZOLActivated(true);
        setInt(ZOLVconfKey::BackgroundVolume, 7);
        passed = passed && screen.comesToShow("on, de-DE, -, DE, volume 7");
    }
    std::filesystem::remove_all(store);
    std::cout << (passed ? "passed" : "failed") << std::endl;
    return passed ? 0 : 1;
}
