// sr-chorus: TAV SR Chorus as a standalone JACK client.
#include <iostream>

#include "app/App.h"
#include "platform/PrintQueue.h"

int main(int argc, char** argv) {
    sr::app::Options options;
    try {
        options = sr::app::parseOptions(argc, argv);
    } catch (const sr::app::UsageError& e) {
        std::cerr << "sr-chorus: error: " << e.what() << '\n';
        return sr::app::App::kNoServer;
    }
    if (options.help) {
        std::cout << sr::app::usageText();
        return 0;
    }
    int status = 0;
    {
        sr::app::App app(std::move(options));
        status = app.run();
    }
    // The log is written by another thread: everything reaches standard output before exit.
    sr::printQueue().flush();
    return status;
}
