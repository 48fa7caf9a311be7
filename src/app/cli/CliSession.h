#pragma once

#include <memory>

class AppSettings;
class ChatStore;

// What the commands of one `kelo` run share: the ChatStore, created on first use so that commands
// that do not need it start instantly.
class CliSession
{
public:
    CliSession();
    ~CliSession();

    ChatStore &store();

    // The exit code of a command that has just changed a setting: failure, told on stderr, when the
    // change could not be saved.
    static int changeSaved(const AppSettings &settings);

private:
    void warnAboutStorage();

    std::unique_ptr<ChatStore> m_store;
};
