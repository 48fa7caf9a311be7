#include "MCPClient.h"

#include "MCPError.h"
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

// A server may put its own requests and notifications on the stream before the reply; those carry
// a "method" and are not the answer we wait for.
bool isReply(const QJsonObject &message)
{
    return !message.contains(QLatin1String("method"));
}

std::optional<QJsonObject> replyOnDataLine(QByteArrayView line)
{
    if (!line.startsWith("data:"))
        return std::nullopt;
    QByteArrayView data = line.sliced(5);
    while (!data.isEmpty() && (data.front() == ' ' || data.front() == '\t'))
        data = data.sliced(1);
    while (!data.isEmpty() && (data.back() == ' ' || data.back() == '\t'))
        data.chop(1);
    if (data.isEmpty() || data == "[DONE]")
        return std::nullopt;
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(data.toByteArray(), &error);
    if (error.error != QJsonParseError::NoError || !document.isObject() || !isReply(document.object()))
        return std::nullopt;
    return document.object();
}

// Ends a download as soon as the body holds a complete reply line, so an event stream the server
// keeps open does not run into the time-out. Scans only what arrived since the last call.
std::function<bool(const QByteArray &)> replyArrivedPredicate()
{
    struct Progress
    {
        qsizetype lineStart = 0; // where the first unfinished line begins
        qsizetype searched = 0; // no line feed before this offset after lineStart
    };
    auto progress = std::make_shared<Progress>();
    return [progress](const QByteArray &body) {
        qsizetype end = body.indexOf('\n', std::max(progress->lineStart, progress->searched));
        for (; end >= 0; end = body.indexOf('\n', progress->lineStart)) {
            const qsizetype start = progress->lineStart;
            progress->lineStart = end + 1;
            if (replyOnDataLine(QByteArrayView(body).sliced(start, end - start)))
                return true;
        }
        progress->searched = body.size();
        return false;
    };
}

bool isValidEndpoint(const QUrl &url)
{
    const QString scheme = url.scheme().toLower();
    return url.isValid() && (scheme == QLatin1String("http") || scheme == QLatin1String("https"))
        && !url.host().isEmpty();
}

std::optional<QJsonObject> decodeBody(const QByteArray &body)
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
    return MCPClient::firstReplyInEventStream(body);
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
{ }

MCPClient::~MCPClient() = default;

std::optional<QJsonObject> MCPClient::firstReplyInEventStream(const QByteArray &body)
{
    qsizetype start = 0;
    while (start < body.size()) {
        qsizetype end = body.indexOf('\n', start);
        if (end < 0)
            end = body.size();
        if (auto reply = replyOnDataLine(QByteArrayView(body).sliced(start, end - start)))
            return reply;
        start = end + 1;
    }
    return std::nullopt;
}

QCoro::Task<QJsonObject> MCPClient::post(const MCPServerConfig &server, const QJsonObject &payload, bool allowEmpty)
{
    const QUrl url(server.endpoint, QUrl::StrictMode);
    if (!isValidEndpoint(url))
        throw MCPError(MCPError::invalidEndpoint);

    QNetworkRequest request(url);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    request.setRawHeader("Accept", "application/json, text/event-stream");
    if (!server.bearerToken.isEmpty())
        HeaderValues::set(request, "Authorization", "Bearer " + server.bearerToken.toUtf8());
    // The session id comes from the server's own reply: a hostile one must not inject header lines.
    if (const auto session = m_sessionIDs.constFind(server.endpoint); session != m_sessionIDs.cend())
        HeaderValues::set(request, "Mcp-Session-Id", session->toUtf8());

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
    if (!reply.isSuccess())
        throw MCPError(MCPError::invalidResponse);

    const QByteArray sessionID = reply.header("Mcp-Session-Id");
    if (!sessionID.isEmpty())
        m_sessionIDs.insert(server.endpoint, QString::fromUtf8(sessionID));

    if (auto object = decodeBody(reply.body))
        co_return *object;
    if (allowEmpty)
        co_return QJsonObject();
    throw MCPError(MCPError::invalidResponse);
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
    const QJsonObject reply = co_await post(server, payload, false);
    if (reply.contains(QLatin1String("error"))) {
        const QJsonValue message = reply.value(QLatin1String("error")).toObject().value(QLatin1String("message"));
        throw MCPError(
            MCPError::remote, message.isString() ? message.toString() : QStringLiteral("eroare necunoscută"));
    }
    const QJsonValue result = reply.value(QLatin1String("result"));
    if (!result.isObject())
        throw MCPError(MCPError::invalidResponse);
    co_return result.toObject();
}

QCoro::Task<> MCPClient::notification(const MCPServerConfig &server, const QString &method, const QJsonObject &params)
{
    const QJsonObject payload {
        { QStringLiteral("jsonrpc"), QStringLiteral("2.0") },
        { QStringLiteral("method"), method },
        { QStringLiteral("params"), params },
    };
    co_await post(server, payload, true);
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
    co_await rpc(server, QStringLiteral("initialize"), params);
    co_await notification(server, QStringLiteral("notifications/initialized"), QJsonObject());
    m_initializedEndpoints.insert(server.endpoint);
}

QCoro::Task<QList<QJsonObject>> MCPClient::listTools(MCPServerConfig server)
{
    co_await initialize(server);
    const QJsonObject result = co_await rpc(server, QStringLiteral("tools/list"), QJsonObject());
    const QJsonValue tools = result.value(QLatin1String("tools"));
    QList<QJsonObject> objects;
    if (!tools.isArray())
        co_return objects;
    for (const QJsonValue &tool : tools.toArray()) {
        if (!tool.isObject())
            co_return QList<QJsonObject>();
        objects.append(tool.toObject());
    }
    co_return objects;
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
    co_await initialize(server);
    const QJsonObject params { { QStringLiteral("name"), name }, { QStringLiteral("arguments"), arguments } };
    const QJsonObject result = co_await rpc(server, QStringLiteral("tools/call"), params);
    co_return flattenToolResult(result);
}
