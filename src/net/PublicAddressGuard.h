#pragma once

#include <QCoroTask>
#include <QHostAddress>
#include <QList>
#include <QString>
#include <QUrl>

#include <functional>

// Lets a request reach only public internet addresses: the host is resolved and every address it
// names is checked, so neither a numeric host (2130706433, [::ffff:127.0.0.1]) nor a name that
// resolves to this computer or a private network gets through.
class PublicAddressGuard
{
public:
    using Resolver = std::function<QCoro::Task<QList<QHostAddress>>(QString host)>;

    // The system resolver unless another is given (tests stand in for DNS with their own).
    explicit PublicAddressGuard(Resolver resolver = {});

    // Throws BlockedAddressError when the URL's host is, or resolves to, an address that is not
    // public, and URLError(cannotFindHost) when it resolves to nothing.
    QCoro::Task<> check(QUrl url) const;

    // False for loopback, private (10/8, 172.16/12, 192.168/16, 100.64/10, fc00::/7), link-local
    // (169.254/16, fe80::/10), unspecified, multicast and reserved addresses, also when an IPv6
    // address carries one of them as an embedded IPv4 address.
    static bool isPublic(const QHostAddress &address);

    static QCoro::Task<QList<QHostAddress>> resolveWithSystem(QString host);

private:
    Resolver m_resolver;
};
