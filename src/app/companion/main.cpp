#include "CompanionApp.h"
#include "CompanionHelp.h"
#include "settings/LegacyLocalModelCleaner.h"
#include "skills/OAuthCallbackChannel.h"

#include <QApplication>

int main(int argc, char *argv[])
{
    if (const auto code = CompanionHelp::answer(argc, argv))
        return *code;
    // The tray needs QtWidgets, hence a QApplication here (and only here).
    QApplication app(argc, argv);
    CompanionApp::configureApplication();

    // Started by the browser with an OAuth redirect: hand it to the waiting flow and leave.
    const int handOff = OAuthCallbackChannel::handOffArguments(QCoreApplication::arguments());
    if (handOff >= 0)
        return handOff;

    LegacyLocalModelCleaner::runOnce();
    CompanionApp companion;
    if (!companion.start())
        return 1;
    return app.exec();
}
