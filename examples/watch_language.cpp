// Reads the assistant language, watches it and changes it.
#include <ZOLSystemData.h>
#include <ZOLSystemDataNotify.h>

#include <future>
#include <iostream>

static void onLanguage(std::string language, void* changed)  // on the thread that delivers changes
{
    static_cast<std::promise<std::string>*>(changed)->set_value(language);
}

int main()
{
    std::string language = "not set";
    ZOLSystemData::GetZOLLanguage(language);
    std::promise<std::string> changed;
    if (ZOLSystemDataNotify::RegisterZOLLanguageCallback(onLanguage, &changed) == 0)
        return 1;
    ZOLSystemData::SetZOLLanguage("de-DE");
    std::cout << language << ", then " << changed.get_future().get() << std::endl;
    ZOLSystemDataNotify::UnregisterZOLLanguageCallback(onLanguage);
}
