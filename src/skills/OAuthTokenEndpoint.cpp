#include "OAuthTokenEndpoint.h"

#include "MCPOAuthError.h"
#include "net/HttpClient.h"
#include "net/JsonSupport.h"

#include <QRegularExpression>

namespace {

constexpr qint64 maxReplyBytes = 1024 * 1024;
constexpr qsizetype maxDetailChars = 500;

} // namespace

OAuthTokenEndpoint::OAuthTokenEndpoint(HttpClient *http, int timeoutMs)
    : m_http(http)
    , m_timeoutMs(timeoutMs)
{ }

QCoro::Task<HttpReply> OAuthTokenEndpoint::post(QUrl endpoint, Form form) const
{
    QNetworkRequest request(endpoint);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/x-www-form-urlencoded"));
    request.setRawHeader("Accept", "application/json");
    HttpClient::Options options;
    options.timeoutMs = m_timeoutMs;
    options.maxBodyBytes = maxReplyBytes;
    HttpReply reply = co_await m_http->post(request, formEncoded(form), options);
    co_return reply;
}

OAuthTokenResponse OAuthTokenEndpoint::tokenFrom(const HttpReply &reply)
{
    if (!reply.isSuccess())
        throw MCPOAuthError(MCPOAuthError::tokenExchangeFailed, failureDetail(reply));
    const auto object = JsonSupport::parseObject(reply.body);
    const auto token = object ? OAuthTokenResponse::fromJson(*object) : std::nullopt;
    if (!token || !token->accessToken || token->accessToken->isEmpty())
        throw MCPOAuthError(MCPOAuthError::tokenMissing);
    return *token;
}

QByteArray OAuthTokenEndpoint::formEncoded(const Form &pairs)
{
    QByteArray out;
    for (const auto &[key, value] : pairs) {
        if (!out.isEmpty())
            out += '&';
        out += QUrl::toPercentEncoding(key) + '=' + QUrl::toPercentEncoding(value);
    }
    return out;
}

QString OAuthTokenEndpoint::failureDetail(const HttpReply &reply)
{
    if (!reply.isHttp())
        return QStringLiteral("HTTP invalid");
    static const QRegularExpression controls(QStringLiteral("[\\x00-\\x1f\\x7f]+"));
    const QString text = QString::fromUtf8(reply.body).replace(controls, QStringLiteral(" ")).trimmed();
    if (text.isEmpty())
        return QStringLiteral("HTTP %1").arg(reply.status);
    return text.left(maxDetailChars);
}
