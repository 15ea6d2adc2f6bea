// Shows five of the TV's settings, and again whenever one changes, until it is stopped.
#include "settings_panel.h"

#include <sys/eventfd.h>

#include <iostream>

int main()
{
    const int woken = eventfd(0, EFD_CLOEXEC);  // counts how often a setting changed
    const SettingsPanel panel([woken] { eventfd_write(woken, 1); });
    if (!panel.follows()) {
        std::cerr << "The settings cannot be followed; the log tells why." << std::endl;
        return 1;
    }
    while (true) {
        std::cout << panel.text() << std::endl;
        eventfd_t changes = 0;
        eventfd_read(woken, &changes);  // waits for a change, and sets the count to 0 before the next text
    }
}
