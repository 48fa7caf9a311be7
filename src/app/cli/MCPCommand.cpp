#include "MCPCommand.h"

#include "CliArguments.h"
#include "CliSession.h"
#include "Terminal.h"
#include "conversation/ChatStore.h"
#include "net/KeloError.h"
#include "settings/AppSettings.h"
#include "skills/MCPClient.h"
#include "skills/MCPEndpoint.h"
#include "skills/MCPGalleryItem.h"
#include "skills/MCPOAuthManager.h"
#include "skills/MCPServerListEditor.h"

#include <QProcess>
#include <QStandardPaths>
#include <QUrl>

namespace {

// The system browser: $BROWSER when set (as xdg-open honours it), otherwise xdg-open. The address is
// printed as well, for a machine where no browser opens by itself.
bool openInBrowser(const QUrl &url)
{
    const QString address = url.toString(QUrl::FullyEncoded);
    Terminal::err(QStringLiteral("Deschide în browser pentru autentificare:\n") + address);
    const QString browser = qEnvironmentVariable("BROWSER");
    const QString program = browser.isEmpty() ? QStandardPaths::findExecutable(QStringLiteral("xdg-open")) : browser;
    if (!program.isEmpty())
        QProcess::startDetached(program, { address });
    return true;
}

} // namespace

QString MCPCommand::summary() const
{
    return QStringLiteral("conexiunile MCP: listă, adăugare, OAuth, instrumente");
}

QString MCPCommand::usage() const
{
    return QStringLiteral(
        "Utilizare: kelo mcp list\n"
        "           kelo mcp add NUME ENDPOINT [--token TOKEN]\n"
        "           kelo mcp remove ID|NUME\n"
        "           kelo mcp enable ID|NUME\n"
        "           kelo mcp disable ID|NUME\n"
        "           kelo mcp tools ID|NUME\n"
        "           kelo mcp gallery\n"
        "           kelo mcp connect GALERIE_ID|ENDPOINT [--client-id X] [--client-secret Y]\n"
        "\n"
        "  connect  conectează prin OAuth un serviciu din galerie (vezi „kelo mcp gallery”) sau un endpoint;\n"
        "           deschide browserul și așteaptă întoarcerea la Kelo. Conexiunea se salvează doar la succes.");
}

QCoro::Task<int> MCPCommand::run(CliSession &session, QStringList arguments)
{
    const QString action = arguments.isEmpty() ? QString() : arguments.takeFirst();
    AppSettings &settings = *session.store().settings();
    if (action == QLatin1String("list") && arguments.isEmpty())
        co_return list(settings);
    if (action == QLatin1String("gallery") && arguments.isEmpty())
        co_return gallery(settings);
    if (action == QLatin1String("add"))
        co_return add(settings, arguments);
    const bool change
        = action == QLatin1String("remove") || action == QLatin1String("enable") || action == QLatin1String("disable");
    if (change && arguments.size() == 1)
        co_return this->change(settings, action, arguments.first());
    if (action == QLatin1String("tools") && arguments.size() == 1)
        co_return co_await tools(session, arguments.first());
    if (action == QLatin1String("connect"))
        co_return co_await connect(settings, arguments);
    Terminal::err(usage());
    co_return ExitCode::usage;
}

std::optional<qsizetype> MCPCommand::findServer(const AppSettings &settings, const QString &key)
{
    const QList<MCPServerConfig> servers = settings.mcpServers();
    const QUuid id = QUuid::fromString(key);
    QList<qsizetype> byName;
    for (qsizetype i = 0; i < servers.size(); ++i) {
        if (!id.isNull() && servers[i].id == id)
            return i;
        if (servers[i].name.compare(key, Qt::CaseInsensitive) == 0)
            byName.append(i);
    }
    if (byName.size() == 1)
        return byName.first();
    Terminal::err(byName.isEmpty() ? QStringLiteral("Nu există un server MCP „%1”.").arg(key)
                                   : QStringLiteral("Mai multe servere se numesc „%1”; folosește ID-ul.").arg(key));
    return std::nullopt;
}

int MCPCommand::list(const AppSettings &settings)
{
    const QList<MCPServerConfig> servers = settings.mcpServers();
    if (servers.isEmpty()) {
        Terminal::err(QStringLiteral("Nicio conexiune activă. Alege un serviciu din „kelo mcp gallery” sau adaugă un "
                                     "endpoint cu „kelo mcp add”."));
        return ExitCode::success;
    }
    for (const MCPServerConfig &server : servers) {
        QStringList fields { server.idString(), server.name, server.endpoint,
            server.enabled ? QStringLiteral("Activ") : QStringLiteral("Oprit") };
        if (server.authLabel)
            fields.append(*server.authLabel);
        if (server.needsReconnect)
            fields.append(QStringLiteral("Trebuie conectat din nou"));
        Terminal::out(fields.join(QLatin1Char('\t')));
    }
    return ExitCode::success;
}

int MCPCommand::gallery(const AppSettings &settings)
{
    const QList<MCPServerConfig> servers = settings.mcpServers();
    for (const MCPGalleryItem &item : MCPGalleryItem::gallery()) {
        const bool connected = std::any_of(
            servers.begin(), servers.end(), [&item](const MCPServerConfig &s) { return s.sourceID == item.id; });
        Terminal::out(QStringLiteral("%1\t%2 · %3%4\n\t%5\n\t%6")
                          .arg(item.id, item.name, item.subtitle, connected ? QStringLiteral("\tCONECTAT") : QString(),
                              item.endpoint, item.note));
    }
    return ExitCode::success;
}

int MCPCommand::add(AppSettings &settings, const QStringList &words)
{
    const auto parsed = CliArguments::parseOrReport(words, { {}, { QStringLiteral("--token") } });
    if (!parsed || parsed->positional.size() != 2) {
        if (parsed)
            Terminal::err(usage());
        return ExitCode::usage;
    }
    const QString name = parsed->positional[0].trimmed();
    const QString endpoint = parsed->positional[1].trimmed();
    const QString token = parsed->value(QStringLiteral("--token")).value_or(QString()).trimmed();
    if (name.isEmpty()) {
        Terminal::err(QStringLiteral("Numele serverului nu poate fi gol."));
        return ExitCode::usage;
    }
    if (const QString invalid = MCPEndpoint::validationError(endpoint); !invalid.isEmpty()) {
        Terminal::err(invalid);
        return ExitCode::usage;
    }
    QList<MCPServerConfig> servers = settings.mcpServers();
    servers.append(MCPServerListEditor::manualServer(name, endpoint, token));
    settings.setMcpServers(servers);
    if (CliSession::changeSaved(settings) != ExitCode::success)
        return ExitCode::failure;
    Terminal::out(servers.last().idString());
    return ExitCode::success;
}

int MCPCommand::change(AppSettings &settings, const QString &action, const QString &key)
{
    const auto index = findServer(settings, key);
    if (!index)
        return ExitCode::failure;
    const QList<MCPServerConfig> servers = settings.mcpServers();
    const QString name = servers[*index].name;
    const QString id = servers[*index].idString();
    const bool enabled = action == QLatin1String("enable");
    settings.setMcpServers(action == QLatin1String("remove") ? MCPServerListEditor::without(servers, id)
                                                             : MCPServerListEditor::withEnabled(servers, id, enabled));
    if (CliSession::changeSaved(settings) != ExitCode::success)
        return ExitCode::failure;
    if (action == QLatin1String("remove"))
        Terminal::err(QStringLiteral("Șters: %1").arg(name));
    else
        Terminal::err(QStringLiteral("%1: %2").arg(name, enabled ? QStringLiteral("Activ") : QStringLiteral("Oprit")));
    return ExitCode::success;
}

QCoro::Task<int> MCPCommand::tools(CliSession &session, QString key)
{
    ChatStore &store = session.store();
    const auto index = findServer(*store.settings(), key);
    if (!index)
        co_return ExitCode::failure;
    const MCPServerConfig server = store.settings()->mcpServers().at(*index);
    try {
        const QList<QJsonObject> tools = co_await store.mcp()->listTools(server);
        const QList<MCPToolBinding> bindings = MCPClient::bindingsFor(server, tools);
        if (bindings.isEmpty())
            Terminal::err(QStringLiteral("Serverul %1 nu oferă instrumente.").arg(server.name));
        for (const MCPToolBinding &binding : bindings)
            Terminal::out(QStringLiteral("%1\t%2\t%3")
                              .arg(binding.remoteName, binding.definition.name, binding.definition.description));
        co_return ExitCode::success;
    } catch (...) {
        Terminal::err(describeException(std::current_exception()));
        co_return ExitCode::failure;
    }
}

QCoro::Task<int> MCPCommand::connect(AppSettings &settings, QStringList words)
{
    const auto parsed = CliArguments::parseOrReport(
        words, { {}, { QStringLiteral("--client-id"), QStringLiteral("--client-secret") } });
    if (!parsed || parsed->positional.size() != 1) {
        if (parsed)
            Terminal::err(usage());
        co_return ExitCode::usage;
    }
    const QString target = parsed->positional.first();
    MCPGalleryItem item;
    if (const MCPGalleryItem *known = MCPGalleryItem::find(target)) {
        item = *known;
    } else if (MCPEndpoint::validationError(target).isEmpty()) {
        item.endpoint = target.trimmed();
        item.name = QUrl(item.endpoint).host();
    } else {
        Terminal::err(
            QStringLiteral("„%1” nu este nici un serviciu din galerie, nici un endpoint HTTP(S).").arg(target));
        co_return ExitCode::usage;
    }

    MCPOAuthManager::Options options;
    options.openBrowser = openInBrowser;
    MCPOAuthManager oauth(options);
    QObject::connect(&oauth, &MCPOAuthManager::statusTextChanged, &oauth, [&oauth] {
        if (!oauth.statusText().isEmpty())
            Terminal::err(oauth.statusText());
    });
    try {
        const MCPOAuthManager::Connection connection
            = co_await oauth.connect(item, parsed->value(QStringLiteral("--client-id")).value_or(QString()),
                parsed->value(QStringLiteral("--client-secret")).value_or(QString()));
        settings.setMcpServers(MCPServerListEditor::withGalleryConnection(
            settings.mcpServers(), item, connection.accessToken, QStringLiteral("OAuth"), connection.grant));
        if (CliSession::changeSaved(settings) != ExitCode::success)
            co_return ExitCode::failure;
        Terminal::err(QStringLiteral("Conectat: %1").arg(item.name));
        co_return ExitCode::success;
    } catch (...) {
        Terminal::err(describeException(std::current_exception()));
        co_return ExitCode::failure;
    }
}

QStringList MCPCommand::completions(const QStringList &previous) const
{
    if (previous.isEmpty())
        return { QStringLiteral("list"), QStringLiteral("add"), QStringLiteral("remove"), QStringLiteral("enable"),
            QStringLiteral("disable"), QStringLiteral("tools"), QStringLiteral("gallery"), QStringLiteral("connect") };
    const QString action = previous.first();
    const QString last = previous.last();
    if (last.startsWith(QLatin1String("--")) && previous.size() > 1)
        return {}; // the value of --token, --client-id or --client-secret
    if (action == QLatin1String("add"))
        return { QStringLiteral("--token") };
    if (action == QLatin1String("connect")) {
        QStringList words { QStringLiteral("--client-id"), QStringLiteral("--client-secret") };
        if (previous.size() == 1) {
            for (const MCPGalleryItem &item : MCPGalleryItem::gallery())
                words.append(item.id);
        }
        return words;
    }
    const QStringList byServer { QStringLiteral("remove"), QStringLiteral("enable"), QStringLiteral("disable"),
        QStringLiteral("tools") };
    QStringList names;
    if (byServer.contains(action) && previous.size() == 1) {
        for (const MCPServerConfig &server : AppSettings::storedMCPServers())
            names.append(server.name);
    }
    return names;
}
