#include "PublicAddressGuard.h"

#include "BlockedAddressError.h"
#include "URLError.h"

#include <QCoroFuture>
#include <QHostInfo>
#include <QPromise>

#include <memory>

namespace {

struct Subnet
{
    QHostAddress network;
    int prefix;
};

const QList<Subnet> &blockedSubnets()
{
    static const QList<Subnet> subnets {
        { QHostAddress(QStringLiteral("0.0.0.0")), 8 }, // "this network", the unspecified address
        { QHostAddress(QStringLiteral("10.0.0.0")), 8 },
        { QHostAddress(QStringLiteral("100.64.0.0")), 10 }, // carrier-grade NAT
        { QHostAddress(QStringLiteral("127.0.0.0")), 8 },
        { QHostAddress(QStringLiteral("169.254.0.0")), 16 },
        { QHostAddress(QStringLiteral("172.16.0.0")), 12 },
        { QHostAddress(QStringLiteral("192.168.0.0")), 16 },
        { QHostAddress(QStringLiteral("224.0.0.0")), 4 }, // multicast
        { QHostAddress(QStringLiteral("240.0.0.0")), 4 }, // reserved, broadcast
        { QHostAddress(QStringLiteral("fc00::")), 7 },
        { QHostAddress(QStringLiteral("fe80::")), 10 },
        { QHostAddress(QStringLiteral("fec0::")), 10 }, // the former site-local range
        { QHostAddress(QStringLiteral("ff00::")), 8 },
    };
    return subnets;
}

// IPv6 forms that carry an IPv4 address in their last 32 bits: mapped (::ffff:a.b.c.d), compatible
// (::a.b.c.d, which also covers :: and ::1) and the NAT64 prefix 64:ff9b::/96.
std::optional<QHostAddress> embeddedIPv4(const QHostAddress &address)
{
    if (address.protocol() != QAbstractSocket::IPv6Protocol)
        return std::nullopt;
    static const QHostAddress compatible(QStringLiteral("::"));
    static const QHostAddress nat64(QStringLiteral("64:ff9b::"));
    const bool mapped = address.isInSubnet(QHostAddress(QStringLiteral("::ffff:0:0")), 96);
    if (!mapped && !address.isInSubnet(compatible, 96) && !address.isInSubnet(nat64, 96))
        return std::nullopt;
    const Q_IPV6ADDR bytes = address.toIPv6Address();
    const quint32 ipv4
        = (quint32(bytes[12]) << 24) | (quint32(bytes[13]) << 16) | (quint32(bytes[14]) << 8) | bytes[15];
    return QHostAddress(ipv4);
}

} // namespace

PublicAddressGuard::PublicAddressGuard(Resolver resolver)
    : m_resolver(resolver ? std::move(resolver) : Resolver(&PublicAddressGuard::resolveWithSystem))
{ }

bool PublicAddressGuard::isPublic(const QHostAddress &address)
{
    if (address.isNull())
        return false;
    const QHostAddress checked = embeddedIPv4(address).value_or(address);
    for (const Subnet &subnet : blockedSubnets()) {
        if (checked.isInSubnet(subnet.network, subnet.prefix))
            return false;
    }
    return true;
}

QCoro::Task<> PublicAddressGuard::check(QUrl url) const
{
    const QString host = url.host();
    QList<QHostAddress> addresses;
    if (QHostAddress numeric; numeric.setAddress(host)) {
        addresses.append(numeric);
    } else {
        addresses = co_await m_resolver(host);
    }
    if (addresses.isEmpty())
        throw URLError(URLError::cannotFindHost, host);
    for (const QHostAddress &address : addresses) {
        if (!isPublic(address))
            throw BlockedAddressError(host, address.toString());
    }
}

QCoro::Task<QList<QHostAddress>> PublicAddressGuard::resolveWithSystem(QString host)
{
    auto promise = std::make_shared<QPromise<QList<QHostAddress>>>();
    QFuture<QList<QHostAddress>> future = promise->future();
    promise->start();
    QHostInfo::lookupHost(host, [promise](const QHostInfo &info) {
        promise->addResult(info.error() == QHostInfo::NoError ? info.addresses() : QList<QHostAddress>());
        promise->finish();
    });
    const QList<QHostAddress> addresses = co_await future;
    co_return addresses;
}
