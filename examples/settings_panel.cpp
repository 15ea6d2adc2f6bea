// Shows five of the TV's settings, and again whenever one changes, until it is stopped.
#include "settings_panel.h"

#include <unistd.h>

#include <iostream>

int main()
{
    const SettingsPanel panel([](const std::string& text) { std::cout << text << std::endl; });
    if (!panel.follows()) {
        std::cerr << "The settings cannot be followed; the log tells why." << std::endl;
        return 1;
    }
    pause();
}
