#pragma once

#include <QByteArray>
#include <QNetworkRequest>

#include <optional>

// How HttpClient follows redirects itself (Qt 6.4's own following fails at random with "Unknown
// error"): the rules of browsers, a small hop limit, and never from https down to http.
class HttpRedirect
{
public:
    // Redirects followed at most for one request.
    static constexpr int maxRedirects = 5;

    // One request of a redirect chain, as it goes on the wire.
    struct Hop
    {
        QByteArray verb;
        QNetworkRequest request;
        QByteArray body;
    };

    // The request a redirect answer asks for, or nothing when the answer is not a redirect to follow
    // (another status, or no Location). 303, and 301/302 after a POST, become a GET without body;
    // 307/308 keep method and body. A relative Location is resolved against the current URL.
    // Credentials are not carried to another origin. Throws URLError for a Location that is no
    // http(s) address or that leaves https for http.
    static std::optional<Hop> next(const Hop &from, int status, const QByteArray &location);
};
