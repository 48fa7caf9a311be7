#include "WebSkillService.h"

#include "net/DecodingError.h"
#include "net/Endpoints.h"
#include "net/HttpClient.h"
#include "net/JsonSupport.h"
#include "net/URLError.h"
#include "net/WireNames.h"

#include <QJsonArray>
#include <QNetworkRequest>
#include <QRegularExpression>
#include <QUrl>

namespace {

// A search reply and a page are small; the deadlines leave room for a slow line only.
constexpr int searchTimeoutMs = 12'000;
constexpr int searchDeadlineMs = 15'000;
constexpr int pageTimeoutMs = 15'000;
constexpr int pageDeadlineMs = 20'000;
constexpr qsizetype maxSearchResults = 5;
constexpr qint64 maxSearchReplyBytes = 4 * 1024 * 1024;
constexpr qint64 maxPageBytes = 80'000;
constexpr qsizetype maxPageCharacters = 14'000;

struct SearchPage
{
    QString title;
    std::optional<QString> excerpt;
    std::optional<QString> description;
};

// An optional member: absent and null both mean "none", anything but a string is malformed.
std::optional<QString> optionalString(const QJsonObject &object, const char *key)
{
    const QJsonValue value = object.value(QLatin1String(key));
    if (value.isUndefined() || value.isNull())
        return std::nullopt;
    if (!value.isString())
        throw DecodingError(QStringLiteral("„%1” nu este text").arg(QLatin1String(key)));
    return value.toString();
}

QList<SearchPage> decodeSearchPages(const QByteArray &body)
{
    const auto object = JsonSupport::parseObject(body);
    if (!object)
        throw DecodingError(QStringLiteral("rezultatul căutării nu este un obiect JSON"));
    const QJsonValue pages = object->value(QLatin1String("pages"));
    if (!pages.isArray())
        throw DecodingError(QStringLiteral("lipsește lista „pages”"));

    QList<SearchPage> decoded;
    for (const QJsonValue &value : pages.toArray()) {
        if (!value.isObject())
            throw DecodingError(QStringLiteral("un rezultat al căutării nu este un obiect"));
        const QJsonObject page = value.toObject();
        const auto title = JsonSupport::string(page, QLatin1String("title"));
        if (!title)
            throw DecodingError(QStringLiteral("un rezultat al căutării nu are „title”"));
        decoded.append(SearchPage { *title, optionalString(page, "excerpt"), optionalString(page, "description") });
    }
    return decoded;
}

// The short description wins over the search excerpt whenever the page has one.
QString searchLine(const SearchPage &page)
{
    QString text = page.description.value_or(page.excerpt.value_or(QString()));
    text.remove(QStringLiteral("<span class=\"searchmatch\">"));
    text.remove(QStringLiteral("</span>"));
    return QStringLiteral("• ") + page.title + QStringLiteral(": ") + text;
}

QString digestOf(const QList<SearchPage> &pages)
{
    if (pages.isEmpty())
        return QStringLiteral("Nu am găsit rezultate relevante.");
    QStringList lines;
    for (const SearchPage &page : pages.first(std::min(pages.size(), maxSearchResults)))
        lines.append(searchLine(page));
    return lines.join(QLatin1Char('\n'));
}

QUrl searchURL(const QString &query)
{
    QUrl url(Endpoints::wikipediaBaseURL() + QStringLiteral("/w/rest.php/v1/search/page"));
    // Encoded by hand: QUrlQuery would leave '+' and '&' inside the query ambiguous.
    const QByteArray encoded = "q=" + QUrl::toPercentEncoding(query) + "&limit=5";
    url.setQuery(QString::fromLatin1(encoded), QUrl::StrictMode);
    if (!url.isValid())
        throw URLError(URLError::badURL, url.toString());
    return url;
}

QUrl pageURL(const QString &urlString)
{
    const QUrl url(urlString);
    const QString scheme = url.scheme().toLower();
    if (!url.isValid() || (scheme != QLatin1String("http") && scheme != QLatin1String("https")))
        throw URLError(URLError::badURL, urlString);
    return url;
}

// The first `limit` code points: a character outside the Basic Multilingual Plane (an emoji) counts
// once and is never split into half a surrogate pair.
QString leftCodePoints(const QString &text, qsizetype limit)
{
    if (text.size() <= limit)
        return text;
    qsizetype units = 0;
    for (qsizetype points = 0; points < limit && units < text.size(); ++points)
        units += (text.at(units).isHighSurrogate() && units + 1 < text.size()) ? 2 : 1;
    return text.left(units);
}

const QRegularExpression &scriptsAndStyles()
{
    static const QRegularExpression expression = [] {
        QRegularExpression compiled(QStringLiteral("<script[\\s\\S]*?</script>|<style[\\s\\S]*?</style>"));
        compiled.optimize();
        return compiled;
    }();
    return expression;
}

const QRegularExpression &tags()
{
    static const QRegularExpression expression = [] {
        QRegularExpression compiled(QStringLiteral("<[^>]+>"));
        compiled.optimize();
        return compiled;
    }();
    return expression;
}

// Unicode-aware, so no-break and other wide spaces collapse too.
const QRegularExpression &whiteSpaceRuns()
{
    static const QRegularExpression expression = [] {
        QRegularExpression compiled(QStringLiteral("\\s+"), QRegularExpression::UseUnicodePropertiesOption);
        compiled.optimize();
        return compiled;
    }();
    return expression;
}

bool privateAddressesAllowed()
{
    return qEnvironmentVariable("KELO_FETCH_ALLOW_PRIVATE") == QLatin1String("1");
}

} // namespace

WebSkillService::WebSkillService(QObject *parent)
    : WebSkillService(PublicAddressGuard::Resolver(), parent)
{ }

WebSkillService::WebSkillService(PublicAddressGuard::Resolver resolver, QObject *parent)
    : QObject(parent)
    , m_http(new HttpClient(this))
    , m_addressGuard(std::move(resolver))
{ }

WebSkillService::~WebSkillService() = default;

QCoro::Task<QString> WebSkillService::searchRomanianWeb(QString query)
{
    QNetworkRequest request(searchURL(query));
    request.setRawHeader("User-Agent", WireNames::userAgent);
    HttpClient::Options options;
    options.timeoutMs = searchTimeoutMs;
    options.deadlineMs = searchDeadlineMs;
    options.maxBodyBytes = maxSearchReplyBytes;

    const HttpReply reply = co_await m_http->get(request, options);
    if (!reply.isSuccess())
        throw URLError(URLError::badServerResponse);
    co_return searchDigest(reply.body);
}

QCoro::Task<QString> WebSkillService::fetchURL(QString urlString)
{
    QNetworkRequest request(pageURL(urlString));
    HttpClient::Options options;
    options.timeoutMs = pageTimeoutMs;
    options.deadlineMs = pageDeadlineMs;
    options.maxBodyBytes = maxPageBytes;
    options.truncateAtLimit = true;
    if (!privateAddressesAllowed())
        options.beforeEachHop = [this](QUrl url) { return m_addressGuard.check(std::move(url)); };

    const HttpReply reply = co_await m_http->get(request, options);
    if (!reply.isSuccess())
        throw URLError(URLError::badServerResponse);
    co_return readableText(reply.body);
}

QString WebSkillService::readableText(const QByteArray &body)
{
    // Invalid or cut UTF-8 sequences become U+FFFD; the page's declared charset is not consulted.
    QString text = QString::fromUtf8(body.first(std::min<qsizetype>(body.size(), maxPageBytes)));
    const QString space(QLatin1Char(' '));
    text.replace(scriptsAndStyles(), space);
    text.replace(tags(), space);
    text.replace(whiteSpaceRuns(), space);
    return leftCodePoints(text, maxPageCharacters);
}

QString WebSkillService::searchDigest(const QByteArray &body)
{
    return digestOf(decodeSearchPages(body));
}
