// Lists the apps in concurrent mode.
#include <ZOLSystemData.h>

#include <iostream>

int main()
{
    std::vector<std::string> apps;
    if (!ZOLSystemData::GetZOLConcurrentAppList(apps)) {
        std::cerr << "There is no list yet; zolctl concurrent enable APPID begins one." << std::endl;
        return 1;
    }
    for (const std::string& app : apps)
        std::cout << app << std::endl;
}
