#include "MCPClient.h"

#include "MCPEndpoint.h"
#include "MCPError.h"
#include "MCPEventStream.h"
#include "net/HeaderValues.h"
#include "net/HttpClient.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QStringDecoder>
#include <QUrl>

#include <memory>
#include <vector>

namespace {

constexpr qint64 maxReplyBytes = 16 * 1024 * 1024;

const QString protocolVersion = QStringLiteral("2025-06-18");

// Ends a download as soon as the body holds a complete reply event, so an event stream the server
// keeps open does not run into the time-out. Reads only what arrived since the last call.
std::function<bool(const QByteArray &)> replyArrivedPredicate()
{
    struct Progress
    {
        MCPEventStream stream;
        qsizetype read = 0;
    };
    auto progress = std::make_shared<Progress>();
    return [progress](const QByteArray &body) {
        const QByteArrayView fresh = QByteArrayView(body).sliced(progress->read);
        progress->read = body.size();
        return progress->stream.feed(fresh).has_value();
    };
}

// The version the server chose in its handshake when it is a plausible header value, else ours.
QString agreedVersion(const QJsonObject &initializeResult)
{
    static const QRegularExpression token(QStringLiteral("^[A-Za-z0-9._-]{1,32}$"));
    const QString version = initializeResult.value(QLatin1String("protocolVersion")).toString();
    return token.match(version).hasMatch() ? version : protocolVersion;
}

} // namespace

MCPClient::MCPClient(QObject *parent)
    : MCPClient(defaultTimeoutMs, parent)
{ }

MCPClient::MCPClient(int timeoutMs, QObject *parent)
    : QObject(parent)
    , m_http(new HttpClient(this))
    , m_timeoutMs(timeoutMs)
    , m_deadlineMs(int(qint64(timeoutMs) * defaultDeadlineMs / defaultTimeoutMs))
    , m_refresher(m_http, timeoutMs)
{ }

MCPClient::~MCPClient() = default;

std::optional<QJsonObject> MCPClient::decodeReplyBody(const QByteArray &body)
{
    if (body.isEmpty())
        return std::nullopt;
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(body, &error);
    if (error.error == QJsonParseError::NoError && document.isObject())
        return document.object();
    // An event stream is text; a body that is not UTF-8 is no reply at all.
    QStringDecoder utf8(QStringDecoder::Utf8);
    [[maybe_unused]] const QString text = utf8(body);
    if (utf8.hasError())
        return std::nullopt;
    return MCPEventStream::firstReply(body);
}

QCoro::Task<QJsonObject> MCPClient::post(const MCPServerConfig &server, const QJsonObject &payload, bool allowEmpty)
{
    const QUrl url(server.endpoint, QUrl::StrictMode);
    if (!MCPEndpoint::isHttpURL(url))
        throw MCPError(MCPError::invalidEndpoint);

    QNetworkRequest request(url);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    request.setRawHeader("Accept", "application/json, text/event-stream");
    if (!server.bearerToken.isEmpty())
        HeaderValues::set(request, "Authorization", "Bearer " + server.bearerToken.toUtf8());
    // The session id and version come from the server's own reply: a hostile one must not inject
    // header lines.
    const QString sessionID = m_sessionIDs.value(server.endpoint);
    if (!sessionID.isEmpty())
        HeaderValues::set(request, "Mcp-Session-Id", sessionID.toUtf8());
    if (const auto version = m_protocolVersions.constFind(server.endpoint); version != m_protocolVersions.cend())
        HeaderValues::set(request, "MCP-Protocol-Version", version->toLatin1());

    HttpClient::Options options;
    options.timeoutMs = m_timeoutMs;
    options.deadlineMs = m_deadlineMs;
    options.maxBodyBytes = maxReplyBytes;
    // A notification needs no answer beyond its status; a stream left open must not hold it up.
    if (allowEmpty)
        options.isComplete = [](const QByteArray &body) { return !body.isEmpty(); };
    else
        options.isComplete = replyArrivedPredicate();

    const HttpReply reply
        = co_await m_http->post(request, QJsonDocument(payload).toJson(QJsonDocument::Compact), std::move(options));
    if (!reply.isHttp())
        throw MCPError(MCPError::invalidResponse);
    if (reply.status == 401 || reply.status == 403)
        throw MCPError(MCPError::unauthorized);
    // The transport's rule: a 404 to a request in a session means the server has ended the session.
    if (reply.status == 404 && !sessionID.isEmpty())
        throw MCPError(MCPError::sessionExpired, sessionID);
    if (!reply.isSuccess())
        throw MCPError(MCPError::invalidResponse);

    const QByteArray newSessionID = reply.header("Mcp-Session-Id");
    if (!newSessionID.isEmpty())
        m_sessionIDs.insert(server.endpoint, QString::fromUtf8(newSessionID));

    if (auto object = decodeReplyBody(reply.body))
        co_return *object;
    if (allowEmpty)
        co_return QJsonObject();
    throw MCPError(MCPError::invalidResponse);
}

MCPServerConfig MCPClient::withLatestCredentials(const MCPServerConfig &server) const
{
    MCPServerConfig current = server;
    if (const auto latest = m_latestCredentials.constFind(server.id); latest != m_latestCredentials.cend()) {
        current.bearerToken = latest->bearerToken;
        current.oauth = latest->oauth;
        current.needsReconnect = latest->needsReconnect;
    }
    return current;
}

QCoro::Task<> MCPClient::renew(MCPServerConfig server)
{
    const MCPServerConfig renewed = co_await m_refresher.refresh(server);
    m_latestCredentials.insert(renewed.id, renewed);
    Q_EMIT serverCredentialsChanged(renewed);
}

QCoro::Task<MCPServerConfig> MCPClient::renewedCredentials(MCPServerConfig rejected)
{
    const QUuid id = rejected.id;
    std::shared_ptr<QCoro::Task<>> pending = m_renewals.value(id);
    if (!pending) {
        const MCPServerConfig latest = withLatestCredentials(rejected);
        // Renewed by another request since this one was sent.
        if (latest.bearerToken != rejected.bearerToken && !latest.needsReconnect)
            co_return latest;
        if (!MCPTokenRefresher::canRefresh(latest))
            throw MCPError(MCPError::unauthorized);
        pending = std::make_shared<QCoro::Task<>>(renew(latest));
        m_renewals.insert(id, pending);
    }
    std::exception_ptr failure;
    try {
        co_await *pending;
    } catch (...) {
        failure = std::current_exception();
    }
    if (m_renewals.value(id) == pending)
        m_renewals.remove(id);
    if (failure)
        std::rethrow_exception(failure);
    const MCPServerConfig latest = withLatestCredentials(rejected);
    if (latest.needsReconnect)
        throw MCPError(MCPError::unauthorized);
    co_return latest;
}

QCoro::Task<QJsonObject> MCPClient::authorizedPost(MCPServerConfig server, QJsonObject payload, bool allowEmpty)
{
    MCPServerConfig current = withLatestCredentials(server);
    bool renewed = false;
    if (MCPTokenRefresher::canRefresh(current)
        && MCPTokenRefresher::hasExpired(current, QDateTime::currentDateTimeUtc())) {
        current = co_await renewedCredentials(current);
        renewed = true;
    }
    try {
        const QJsonObject reply = co_await post(current, payload, allowEmpty);
        co_return reply;
    } catch (const MCPError &error) {
        if (error.kind() != MCPError::unauthorized || renewed || !MCPTokenRefresher::canRefresh(current))
            throw;
    }
    const MCPServerConfig fresh = co_await renewedCredentials(current);
    const QJsonObject reply = co_await post(fresh, payload, allowEmpty);
    co_return reply;
}

QCoro::Task<QJsonObject> MCPClient::rpc(const MCPServerConfig &server, const QString &method, const QJsonObject &params)
{
    if (m_nextID == std::numeric_limits<qint64>::max())
        qFatal("MCP request ids exhausted");
    const qint64 id = m_nextID++;
    const QJsonObject payload {
        { QStringLiteral("jsonrpc"), QStringLiteral("2.0") },
        { QStringLiteral("id"), id },
        { QStringLiteral("method"), method },
        { QStringLiteral("params"), params },
    };
    const QJsonObject reply = co_await authorizedPost(server, payload, false);
    co_return resultOf(reply);
}

QJsonObject MCPClient::resultOf(const QJsonObject &reply)
{
    if (reply.contains(QLatin1String("error"))) {
        const QJsonValue message = reply.value(QLatin1String("error")).toObject().value(QLatin1String("message"));
        throw MCPError(
            MCPError::remote, message.isString() ? message.toString() : QStringLiteral("eroare necunoscută"));
    }
    const QJsonValue result = reply.value(QLatin1String("result"));
    if (!result.isObject())
        throw MCPError(MCPError::invalidResponse);
    return result.toObject();
}

QCoro::Task<> MCPClient::notification(const MCPServerConfig &server, const QString &method, const QJsonObject &params)
{
    const QJsonObject payload {
        { QStringLiteral("jsonrpc"), QStringLiteral("2.0") },
        { QStringLiteral("method"), method },
        { QStringLiteral("params"), params },
    };
    co_await authorizedPost(server, payload, true);
}

QCoro::Task<> MCPClient::initialize(MCPServerConfig server)
{
    if (m_initializedEndpoints.contains(server.endpoint))
        co_return;
    const QJsonObject params {
        { QStringLiteral("protocolVersion"), protocolVersion },
        { QStringLiteral("capabilities"), QJsonObject() },
        { QStringLiteral("clientInfo"),
            QJsonObject { { QStringLiteral("name"), QStringLiteral("KeloCompanion") },
                { QStringLiteral("version"), QStringLiteral("2.0") } } },
    };
    const QJsonObject result = co_await rpc(server, QStringLiteral("initialize"), params);
    m_protocolVersions.insert(server.endpoint, agreedVersion(result));
    co_await notification(server, QStringLiteral("notifications/initialized"), QJsonObject());
    m_initializedEndpoints.insert(server.endpoint);
}

void MCPClient::forgetSession(const QString &endpoint, const QString &sessionID)
{
    // Another request may already have started the next session.
    if (m_sessionIDs.value(endpoint) != sessionID)
        return;
    m_sessionIDs.remove(endpoint);
    m_initializedEndpoints.remove(endpoint);
    m_protocolVersions.remove(endpoint);
}

QCoro::Task<QJsonObject> MCPClient::request(MCPServerConfig server, QString method, QJsonObject params)
{
    for (int attempt = 1;; ++attempt) {
        co_await initialize(server);
        QString lostSession;
        try {
            const QJsonObject result = co_await rpc(server, method, params);
            co_return result;
        } catch (const MCPError &error) {
            if (error.kind() != MCPError::sessionExpired)
                throw;
            lostSession = error.message();
        }
        // Once is enough: a server that forgets every session cannot be talked to.
        if (attempt == 2)
            throw MCPError(MCPError::sessionExpired);
        forgetSession(server.endpoint, lostSession);
    }
}

QCoro::Task<QList<QJsonObject>> MCPClient::listTools(MCPServerConfig server)
{
    QList<QJsonObject> objects;
    QSet<QString> seenCursors;
    QString cursor;
    for (int page = 0; page < maxToolPages; ++page) {
        QJsonObject params;
        if (!cursor.isEmpty())
            params.insert(QStringLiteral("cursor"), cursor);
        const QJsonObject result = co_await request(server, QStringLiteral("tools/list"), params);
        const auto tools = toolsOfPage(result);
        if (!tools)
            co_return QList<QJsonObject>();
        objects.append(*tools);
        const QJsonValue next = result.value(QLatin1String("nextCursor"));
        cursor = next.toString();
        // A cursor seen before would list the same pages again.
        if (!next.isString() || cursor.isEmpty() || seenCursors.contains(cursor))
            break;
        seenCursors.insert(cursor);
    }
    co_return objects;
}

std::optional<QList<QJsonObject>> MCPClient::toolsOfPage(const QJsonObject &result)
{
    QList<QJsonObject> objects;
    for (const QJsonValue &tool : result.value(QLatin1String("tools")).toArray()) {
        if (!tool.isObject())
            return std::nullopt;
        objects.append(tool.toObject());
    }
    return objects;
}

QString MCPClient::modelToolName(const QString &serverName, const QString &toolName)
{
    static const QRegularExpression disallowed(QStringLiteral("[^a-z0-9_]"));
    QString name = (QStringLiteral("mcp_") + serverName + QLatin1Char('_') + toolName).toLower();
    name.replace(disallowed, QStringLiteral("_"));
    return name.left(64);
}

QList<MCPToolBinding> MCPClient::bindingsFor(const MCPServerConfig &server, const QList<QJsonObject> &tools)
{
    QList<MCPToolBinding> bindings;
    for (const QJsonObject &tool : tools) {
        const QJsonValue nameValue = tool.value(QLatin1String("name"));
        const QString name = nameValue.toString();
        if (!nameValue.isString() || name.isEmpty())
            continue;
        const QJsonValue descriptionValue = tool.value(QLatin1String("description"));
        const QString description = descriptionValue.isString()
            ? descriptionValue.toString()
            : QStringLiteral("Instrument MCP ") + name + QStringLiteral(" din ") + server.name + QLatin1Char('.');
        const QJsonValue schemaValue = tool.value(QLatin1String("inputSchema"));
        const QJsonObject schema = schemaValue.isObject()
            ? schemaValue.toObject()
            : QJsonObject { { QStringLiteral("type"), QStringLiteral("object") },
                  { QStringLiteral("properties"), QJsonObject() } };
        bindings.append(MCPToolBinding { server, name,
            ZenToolDefinition { modelToolName(server.name, name),
                description + QStringLiteral(" [MCP: ") + server.name + QLatin1Char(']'), schema } });
    }
    return bindings;
}

QCoro::Task<QList<MCPToolBinding>> MCPClient::discoverOne(MCPServerConfig server)
{
    try {
        const QList<QJsonObject> tools = co_await listTools(server);
        co_return bindingsFor(server, tools);
    } catch (...) {
        // A server that fails is left out of this turn; the others still offer their tools.
        co_return QList<MCPToolBinding>();
    }
}

QCoro::Task<QList<MCPToolBinding>> MCPClient::discoverBindings(QList<MCPServerConfig> servers)
{
    // Tasks start running when created, so every server is contacted before the first is awaited.
    std::vector<QCoro::Task<QList<MCPToolBinding>>> pending;
    for (const MCPServerConfig &server : std::as_const(servers)) {
        if (server.enabled)
            pending.push_back(discoverOne(server));
    }
    QList<MCPToolBinding> bindings;
    for (auto &task : pending) {
        const QList<MCPToolBinding> found = co_await std::move(task);
        bindings.append(found);
    }
    co_return bindings;
}

QString MCPClient::flattenToolResult(const QJsonObject &result)
{
    const QJsonValue content = result.value(QLatin1String("content"));
    const QJsonArray items = content.toArray();
    const bool allObjects = content.isArray()
        && std::all_of(items.begin(), items.end(), [](const QJsonValue &item) { return item.isObject(); });
    if (allObjects) {
        QStringList texts;
        for (const QJsonValue &itemValue : items) {
            const QJsonObject item = itemValue.toObject();
            const QJsonValue text = item.value(QLatin1String("text"));
            const QJsonValue resourceText
                = item.value(QLatin1String("resource")).toObject().value(QLatin1String("text"));
            if (text.isString())
                texts.append(text.toString());
            else if (resourceText.isString())
                texts.append(resourceText.toString());
        }
        const QString joined = texts.join(QLatin1Char('\n'));
        if (!joined.isEmpty())
            return joined;
    }
    // Qt keeps object keys sorted, so the indented form is already key-sorted.
    return QString::fromUtf8(QJsonDocument(result).toJson(QJsonDocument::Indented)).trimmed();
}

QCoro::Task<QString> MCPClient::callTool(MCPServerConfig server, QString name, QJsonObject arguments)
{
    const QJsonObject params { { QStringLiteral("name"), name }, { QStringLiteral("arguments"), arguments } };
    const QJsonObject result = co_await request(server, QStringLiteral("tools/call"), params);
    co_return flattenToolResult(result);
}
