#pragma once

#include <memory>

class ChatStore;

// What the commands of one `kelo` run share: the ChatStore, created on first use so that commands
// that do not need it start instantly.
class CliSession
{
public:
    CliSession();
    ~CliSession();

    ChatStore &store();

private:
    void warnAboutStorage();

    std::unique_ptr<ChatStore> m_store;
};
