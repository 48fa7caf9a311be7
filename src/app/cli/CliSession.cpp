#include "CliSession.h"

#include "CliCommand.h"
#include "Terminal.h"
#include "conversation/ChatStore.h"
#include "conversation/ConversationMemoryStore.h"
#include "settings/AppSettings.h"
#include "skills/MCPClient.h"

CliSession::CliSession() = default;
CliSession::~CliSession() = default;

ChatStore &CliSession::store()
{
    if (!m_store) {
        m_store = std::make_unique<ChatStore>();
        warnAboutStorage();
    }
    return *m_store;
}

int CliSession::changeSaved(const AppSettings &settings)
{
    if (settings.saveError().isEmpty())
        return ExitCode::success;
    Terminal::err(settings.saveError());
    return ExitCode::failure;
}

void CliSession::warnAboutStorage()
{
    if (m_store->settings()->secretsInFile()) {
        Terminal::err(QStringLiteral("Atenție: niciun serviciu de chei (Secret Service) nu răspunde; cheile API sunt "
                                     "păstrate într-un fișier protejat (0600) din directorul de configurare."));
    }
    const QString recovered = m_store->memory()->recoveredCopyPath();
    if (!recovered.isEmpty()) {
        Terminal::err(QStringLiteral("Atenție: fișierul de memorie nu a putut fi citit. O copie a fost păstrată în %1.")
                          .arg(recovered));
    }
}
