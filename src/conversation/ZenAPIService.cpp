#include "ZenAPIService.h"

#include "ChatCompletionStream.h"
#include "ZenAPIError.h"
#include "net/Endpoints.h"
#include "net/HeaderValues.h"
#include "net/HttpClient.h"
#include "net/HttpStatus.h"
#include "net/JsonSupport.h"

#include <QCollator>
#include <QJsonDocument>
#include <QLocale>
#include <QNetworkRequest>

#include <algorithm>
#include <optional>

namespace {

// A service may be silent while the model thinks (and a whole-piece answer is silent until it is
// written), so the inactivity limit bounds the thinking; a stream that stalls that long fails
// the same way. The deadline adds what the few kilobytes of the answer need.
constexpr int chatTimeoutMs = 90'000;
constexpr int chatDeadlineMs = 120'000;
// A streamed answer keeps arriving while it is written: a stall is caught by the inactivity limit,
// so the deadline only ends a service that never stops.
constexpr int streamedChatDeadlineMs = 300'000;
constexpr int modelListTimeoutMs = 30'000;
constexpr int modelListDeadlineMs = 45'000;
// A completion or a model list is a few kilobytes; anything near this is not a real answer.
constexpr qint64 maxReplyBytes = 8 * 1024 * 1024;
constexpr qsizetype maxErrorBodyCharacters = 500;
constexpr double chatTemperature = 0.55;

const QString bigPickleID = QStringLiteral("big-pickle");

QString trimmedKeyOrThrow(const QString &apiKey)
{
    const QString key = apiKey.trimmed();
    if (key.isEmpty())
        throw ZenAPIError::makeMissingAPIKey();
    return key;
}

QNetworkRequest makeRequest(const QString &url, const QString &key, bool hasBody, bool streamed = false)
{
    QNetworkRequest request { QUrl(url) };
    HeaderValues::set(request, "Authorization", "Bearer " + key.toUtf8());
    request.setRawHeader("Accept", streamed ? "text/event-stream, application/json" : "application/json");
    if (hasBody)
        request.setRawHeader("Content-Type", "application/json");
    return request;
}

HttpClient::Options optionsWithLimits(int timeoutMs, int deadlineMs)
{
    HttpClient::Options options;
    options.timeoutMs = timeoutMs;
    options.deadlineMs = deadlineMs;
    options.maxBodyBytes = maxReplyBytes;
    return options;
}

bool isEventStream(const HttpReply &head)
{
    return head.header("Content-Type").trimmed().toLower().startsWith("text/event-stream");
}

// An event-stream answer goes through `stream` as it arrives; anything else is kept whole.
HttpClient::Options completionOptions(bool streamed, ChatCompletionStream &stream)
{
    HttpClient::Options options = optionsWithLimits(chatTimeoutMs, streamed ? streamedChatDeadlineMs : chatDeadlineMs);
    if (streamed) {
        options.streamsBody = isEventStream;
        options.onChunk = [&stream](const QByteArray &chunk) { return stream.feed(chunk); };
    }
    return options;
}

// An answer that came in one piece reaches the sink as one piece.
ZenAPIService::AssistantResult deliveredWhole(
    ZenAPIService::AssistantResult result, const ZenAPIService::ContentSink &onContent)
{
    if (onContent && !result.text.isEmpty())
        onContent(result.text);
    return result;
}

// The first `limit` code points, never splitting a surrogate pair.
QString leftCodePoints(const QString &text, qsizetype limit)
{
    qsizetype units = 0;
    for (qsizetype points = 0; points < limit && units < text.size(); ++points)
        units += (text.at(units).isHighSurrogate() && units + 1 < text.size()) ? 2 : 1;
    return text.left(units);
}

QString nonEmptyString(const QJsonValue &value)
{
    return value.isString() ? value.toString() : QString();
}

// The text shown for a failed status: the server's own message when it gave one.
QString serverMessage(int status, const QByteArray &body)
{
    if (const auto object = JsonSupport::parseObject(body)) {
        const QString nested
            = nonEmptyString(object->value(QLatin1String("error")).toObject().value(QLatin1String("message")));
        if (!nested.isEmpty())
            return nested;
        const QString topLevel = nonEmptyString(object->value(QLatin1String("message")));
        if (!topLevel.isEmpty())
            return topLevel;
    }
    const QString text = QString::fromUtf8(body).trimmed();
    if (!text.isEmpty())
        return leftCodePoints(text, maxErrorBodyCharacters);
    return httpStatusPhrase(status);
}

void validate(const HttpReply &reply)
{
    if (!reply.isHttp())
        throw ZenAPIError::makeInvalidResponse();
    if (!reply.isSuccess())
        throw ZenAPIError::makeServer(serverMessage(reply.status, reply.body));
}

QJsonObject replyObject(const HttpReply &reply)
{
    validate(reply);
    const auto object = JsonSupport::parseObject(reply.body);
    if (!object)
        throw ZenAPIError::makeInvalidResponse();
    return *object;
}

// A JSON number, or a string holding one (some gateways quote their prices).
std::optional<double> number(const QJsonValue &value)
{
    if (value.isDouble())
        return value.toDouble();
    if (value.isString()) {
        bool ok = false;
        const double parsed = value.toString().trimmed().toDouble(&ok);
        if (ok)
            return parsed;
    }
    return std::nullopt;
}

bool isFreeEntry(const QJsonObject &entry)
{
    if (entry.value(QLatin1String("free")).toBool(false))
        return true;
    const QJsonObject pricing = entry.value(QLatin1String("pricing")).toObject();
    const auto input = number(pricing.value(QLatin1String("input")));
    const auto output = number(pricing.value(QLatin1String("output")));
    return input && output && *input == 0 && *output == 0;
}

QString displayName(const QJsonObject &entry, const QString &id)
{
    for (const char *key : { "name", "display_name", "displayName" }) {
        const QString name = nonEmptyString(entry.value(QLatin1String(key)));
        if (!name.isEmpty())
            return name;
    }
    return id;
}

bool isHiddenModel(const QString &id)
{
    const QString lowered = id.toLower();
    return lowered.startsWith(QLatin1String("jev-")) || lowered.contains(QLatin1String("systemone"));
}

std::optional<ZenModel> modelFromEntry(const QJsonValue &value)
{
    const QJsonObject entry = value.toObject();
    const QString id = nonEmptyString(entry.value(QLatin1String("id")));
    if (id.isEmpty() || isHiddenModel(id))
        return std::nullopt;
    return ZenModel { id, displayName(entry, id), isFreeEntry(entry) };
}

QJsonArray modelArray(const QJsonObject &object)
{
    for (const char *key : { "data", "models" }) {
        const QJsonValue member = object.value(QLatin1String(key));
        if (member.isArray())
            return member.toArray();
    }
    throw ZenAPIError::makeInvalidResponse();
}

void sortForDisplay(QList<ZenModel> &models)
{
    QCollator collator { QLocale() };
    collator.setCaseSensitivity(Qt::CaseInsensitive);
    std::stable_sort(models.begin(), models.end(), [&collator](const ZenModel &a, const ZenModel &b) {
        const bool aPickle = a.id == bigPickleID;
        const bool bPickle = b.id == bigPickleID;
        if (aPickle != bPickle)
            return aPickle;
        if (a.isFree != b.isFree)
            return a.isFree;
        return collator.compare(a.name, b.name) < 0;
    });
}

QString extractText(const QJsonValue &content)
{
    if (content.isString())
        return content.toString();
    if (!content.isArray())
        return {};
    QStringList parts;
    for (const QJsonValue &part : content.toArray()) {
        const QJsonValue text = part.toObject().value(QLatin1String("text"));
        if (text.isString())
            parts.append(text.toString());
    }
    return parts.join(QLatin1Char('\n'));
}

QJsonObject parseArguments(const QJsonValue &arguments)
{
    if (arguments.isObject())
        return arguments.toObject();
    if (arguments.isString())
        return JsonSupport::parseObject(arguments.toString().toUtf8()).value_or(QJsonObject());
    return {};
}

QList<ZenToolCall> parseToolCalls(const QJsonValue &toolCalls)
{
    QList<ZenToolCall> calls;
    for (const QJsonValue &element : toolCalls.toArray()) {
        const QJsonObject call = element.toObject();
        const QJsonObject function = call.value(QLatin1String("function")).toObject();
        const QString name = nonEmptyString(function.value(QLatin1String("name")));
        if (name.isEmpty())
            continue;
        calls.append(ZenToolCall { nonEmptyString(call.value(QLatin1String("id"))), name,
            parseArguments(function.value(QLatin1String("arguments"))) });
    }
    return calls;
}

QJsonArray toolsJson(const QList<ZenToolDefinition> &tools)
{
    QJsonArray array;
    for (const ZenToolDefinition &tool : tools) {
        const QJsonObject function { { QStringLiteral("name"), tool.name },
            { QStringLiteral("description"), tool.description }, { QStringLiteral("parameters"), tool.inputSchema } };
        array.append(QJsonObject {
            { QStringLiteral("type"), QStringLiteral("function") }, { QStringLiteral("function"), function } });
    }
    return array;
}

// The responses protocol knows no tool traffic; only the spoken turns go across.
QJsonArray responsesInput(const QJsonArray &messages)
{
    QJsonArray input;
    for (const QJsonValue &value : messages) {
        const QJsonObject message = value.toObject();
        const QString role = message.value(QLatin1String("role")).toString();
        const QString content = extractText(message.value(QLatin1String("content")));
        if (role == QLatin1String("tool") || content.isEmpty())
            continue;
        const bool keepsRole = role == QLatin1String("assistant") || role == QLatin1String("system");
        input.append(QJsonObject { { QStringLiteral("role"), keepsRole ? role : QStringLiteral("user") },
            { QStringLiteral("content"), content } });
    }
    return input;
}

QString responsesText(const QJsonObject &reply)
{
    const QJsonValue outputText = reply.value(QLatin1String("output_text"));
    if (outputText.isString())
        return outputText.toString();
    const QJsonValue output = reply.value(QLatin1String("output"));
    if (!output.isArray())
        throw ZenAPIError::makeInvalidResponse();
    QStringList texts;
    for (const QJsonValue &item : output.toArray()) {
        for (const QJsonValue &element : item.toObject().value(QLatin1String("content")).toArray()) {
            const QJsonValue text = element.toObject().value(QLatin1String("text"));
            if (text.isString())
                texts.append(text.toString());
        }
    }
    return texts.join(QLatin1Char('\n'));
}

const QString memoryCompactorPrompt
    = QStringLiteral("Ești un compactor de memorie. Returnează numai memoria actualizată.");
const QString memoryRequestPreamble
    = QStringLiteral("Actualizează memoria compactă a unui companion AI.\n"
                     "Păstrează numai informații utile pentru conversații viitoare: preferințe, proiecte, decizii, "
                     "persoane/obiecte importante, obiective și fire deschise.\n"
                     "Nu păstra parole, chei API, tokenuri sau date sensibile.\n"
                     "Scrie în română, maximum 450 de cuvinte, în bullet-uri scurte.\n\n"
                     "Memorie existentă:\n");

} // namespace

ZenAPIService::ZenAPIService(QObject *parent)
    : ZenAPIService(Endpoints::zenBaseURL(), parent)
{ }

ZenAPIService::ZenAPIService(QString baseURL, QObject *parent)
    : QObject(parent)
    , m_baseURL(std::move(baseURL))
    , m_http(new HttpClient(this))
{ }

ZenAPIService::~ZenAPIService() = default;

QCoro::Task<QList<ZenModel>> ZenAPIService::fetchModels(QString apiKey)
{
    const QString key = trimmedKeyOrThrow(apiKey);
    const HttpReply reply = co_await m_http->get(makeRequest(m_baseURL + QStringLiteral("/models"), key, false),
        optionsWithLimits(modelListTimeoutMs, modelListDeadlineMs));
    co_return parseModelList(reply);
}

QList<ZenModel> ZenAPIService::parseModelList(const HttpReply &reply)
{
    QList<ZenModel> models;
    for (const QJsonValue &entry : modelArray(replyObject(reply))) {
        if (auto model = modelFromEntry(entry))
            models.append(std::move(*model));
    }
    const bool listsBigPickle
        = std::any_of(models.cbegin(), models.cend(), [](const ZenModel &model) { return model.id == bigPickleID; });
    if (!listsBigPickle)
        models.append(ZenModel::bigPickle());
    sortForDisplay(models);
    return models;
}

QCoro::Task<ZenAPIService::AssistantResult> ZenAPIService::completeChat(
    QString apiKey, QString modelID, QJsonArray messages, QList<ZenToolDefinition> tools, ContentSink onContent)
{
    return requestCompletion(
        std::move(apiKey), std::move(modelID), std::move(messages), std::move(tools), true, std::move(onContent));
}

QCoro::Task<ZenAPIService::AssistantResult> ZenAPIService::requestCompletion(QString apiKey, QString modelID,
    QJsonArray messages, QList<ZenToolDefinition> tools, bool streamed, ContentSink onContent)
{
    const QString route = modelID.trimmed().toLower();
    if (route.startsWith(QLatin1String("gpt-")) || route.contains(QLatin1String("muse-spark"))) {
        AssistantResult result = co_await completeResponses(
            std::move(apiKey), std::move(modelID), std::move(messages), streamed, std::move(onContent));
        co_return result;
    }
    if (route.startsWith(QLatin1String("jev-")))
        throw ZenAPIError::makeUnsupportedModel(modelID);

    const QString key = trimmedKeyOrThrow(apiKey);
    QJsonObject body { { QStringLiteral("model"), modelID }, { QStringLiteral("messages"), messages },
        { QStringLiteral("temperature"), chatTemperature } };
    if (!tools.isEmpty()) {
        body.insert(QStringLiteral("tools"), toolsJson(tools));
        body.insert(QStringLiteral("tool_choice"), QStringLiteral("auto"));
    }
    ChatCompletionStream stream(onContent);
    const HttpReply reply = co_await postCompletion(QStringLiteral("/chat/completions"), key, body, streamed, &stream);
    if (!reply.streamed)
        co_return deliveredWhole(parseChatCompletion(reply), onContent);
    stream.finish();
    co_return AssistantResult { stream.text(), stream.toolCalls() };
}

ZenAPIService::AssistantResult ZenAPIService::parseChatCompletion(const HttpReply &reply)
{
    const QJsonValue choices = replyObject(reply).value(QLatin1String("choices"));
    const QJsonValue message = choices.toArray().at(0).toObject().value(QLatin1String("message"));
    if (!message.isObject())
        throw ZenAPIError::makeInvalidResponse();
    const QJsonObject messageObject = message.toObject();
    return AssistantResult { extractText(messageObject.value(QLatin1String("content"))),
        parseToolCalls(messageObject.value(QLatin1String("tool_calls"))) };
}

QCoro::Task<ZenAPIService::AssistantResult> ZenAPIService::completeResponses(
    QString apiKey, QString modelID, QJsonArray messages, bool streamed, ContentSink onContent)
{
    const QString key = trimmedKeyOrThrow(apiKey);
    const QJsonObject body { { QStringLiteral("model"), modelID },
        { QStringLiteral("input"), responsesInput(messages) } };
    ChatCompletionStream stream(onContent);
    const HttpReply reply = co_await postCompletion(QStringLiteral("/responses"), key, body, streamed, &stream);
    if (!reply.streamed)
        co_return deliveredWhole(parseResponsesReply(reply), onContent);
    stream.finish();
    // A service that streams no text deltas still ends with the whole response.
    if (stream.text().isEmpty() && stream.completedResponse())
        co_return deliveredWhole(AssistantResult { responsesText(*stream.completedResponse()), {} }, onContent);
    co_return AssistantResult { stream.text(), {} };
}

QCoro::Task<HttpReply> ZenAPIService::postCompletion(
    QString path, QString key, QJsonObject body, bool streamed, ChatCompletionStream *stream)
{
    if (streamed)
        body.insert(QStringLiteral("stream"), true);
    HttpReply reply = co_await m_http->post(makeRequest(m_baseURL + path, key, true, streamed),
        JsonSupport::compact(body), completionOptions(streamed, *stream));
    co_return reply;
}

ZenAPIService::AssistantResult ZenAPIService::parseResponsesReply(const HttpReply &reply)
{
    return AssistantResult { responsesText(replyObject(reply)), {} };
}

QCoro::Task<QString> ZenAPIService::summarizeMemory(
    QString apiKey, QString modelID, QString previousSummary, QString transcript)
{
    const QJsonArray messages {
        QJsonObject { { QStringLiteral("role"), QStringLiteral("system") },
            { QStringLiteral("content"), memoryCompactorPrompt } },
        QJsonObject { { QStringLiteral("role"), QStringLiteral("user") },
            { QStringLiteral("content"),
                memoryRequestPreamble + previousSummary + QStringLiteral("\n\nConversație nouă:\n") + transcript } },
    };
    const AssistantResult result
        = co_await requestCompletion(std::move(apiKey), std::move(modelID), messages, {}, false, {});
    co_return result.text.trimmed();
}
