// Whole-turn overhead of our own code: a ChatStore against a loopback model service and
// encyclopedia that answer at once. Prints per-turn wall time for a plain turn and for a turn with
// two rounds of web tools. The figure includes the in-process fake server's own work and the
// loopback round trips, so it is an upper bound of Kelo's share.
#include "AsyncTest.h"
#include "ChatCompletionReplies.h"
#include "FakeHttpServer.h"
#include "TemporaryHome.h"
#include "conversation/ChatStore.h"
#include "settings/AppSettings.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QJsonDocument>

#include <algorithm>
#include <cstdio>

using Reply = FakeHttpServer::Reply;
using ChatCompletionReplies::completion;
using ChatCompletionReplies::toolCall;

namespace {

struct Figures
{
    double medianMs;
    double p90Ms;
};

Figures measure(ChatStore &store, int turns)
{
    QList<double> samples;
    for (int i = 0; i < turns; ++i) {
        QElapsedTimer timer;
        timer.start();
        AsyncTest::await(store.send(QStringLiteral("Întrebarea %1").arg(i)));
        samples.append(timer.nsecsElapsed() / 1e6);
    }
    std::sort(samples.begin(), samples.end());
    return { samples.at(samples.size() / 2), samples.at(samples.size() * 9 / 10) };
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const int turns = argc > 1 ? std::max(10, atoi(argv[1])) : 200;
    TemporaryHome home;
    FakeHttpServer service;
    ScopedEnvironment zen("KELO_ZEN_BASE_URL", service.baseUrl());
    ScopedEnvironment wiki("KELO_WIKIPEDIA_BASE_URL", service.baseUrl());
    ScopedEnvironment key("KELO_ZEN_API_KEY", QStringLiteral("bench"));
    ScopedEnvironment loopbackPages("KELO_FETCH_ALLOW_PRIVATE", QStringLiteral("1"));

    const QString page = service.baseUrl() + QStringLiteral("/pagina");
    QByteArray html = "<html><head><style>p{color:red}</style><script>var x = 1;</script></head><body>";
    for (int i = 0; i < 200; ++i)
        html += "<p>Paragraful " + QByteArray::number(i) + " despre <b>Brâncuși</b> și Coloana infinitului.</p>\n";
    html += "</body></html>";
    service.on("GET", QStringLiteral("/pagina"), Reply::text(html, 200, "text/html"));
    QJsonArray pages;
    for (int i = 0; i < 5; ++i)
        pages.append(QJsonObject { { "title", QStringLiteral("Pagina %1").arg(i) },
            { "excerpt", QStringLiteral("un <span class=\"searchmatch\">rezultat</span> bun") } });
    service.on("GET", QStringLiteral("/w/rest.php/v1/search/page"), Reply::json(QJsonObject { { "pages", pages } }));

    bool withTools = false;
    service.on("POST", QStringLiteral("/chat/completions"), [&](const FakeHttpServer::Request &request) {
        const QJsonArray messages = request.json()[QLatin1String("messages")].toArray();
        const int toolResults = int(std::count_if(messages.begin(), messages.end(),
            [](const QJsonValue &m) { return m[QLatin1String("role")].toString() == QLatin1String("tool"); }));
        if (withTools && toolResults == 0)
            return Reply::json(
                completion(QString(), { toolCall("s", "kelo_web_search", { { "query", "Brâncuși" } }) }));
        if (withTools && toolResults == 1)
            return Reply::json(completion(QString(), { toolCall("f", "kelo_fetch_url", { { "url", page } }) }));
        return Reply::json(completion(QStringLiteral("<think>gândesc</think>Un răspuns scurt, în română.")));
    });

    ChatStore store;
    store.setSpeaksAnswers(false);
    store.settings()->setMemoryEnabled(false); // compaction is a separate request, not per-turn cost
    measure(store, 20); // warm-up: connections, regexes, caches

    const Figures plain = measure(store, turns);
    withTools = true;
    const Figures tools = measure(store, turns);
    std::printf(
        "turn without tools:        median %.3f ms, p90 %.3f ms (%d turns)\n", plain.medianMs, plain.p90Ms, turns);
    std::printf(
        "turn with 2 web-tool rounds: median %.3f ms, p90 %.3f ms (%d turns)\n", tools.medianMs, tools.p90Ms, turns);
    return 0;
}
