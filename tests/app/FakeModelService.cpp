// A model service on 127.0.0.1 for tests of installed programs: prints its base URL, then answers every
// chat completion with its first argument (streamed a word every N ms with a second argument N).
#include "ChatCompletionReplies.h"
#include "FakeHttpServer.h"

#include <QCoreApplication>

#include <cstdio>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QString answer = app.arguments().value(1, QStringLiteral("Salut de pe 127.0.0.1."));
    bool streamed = false;
    const int wordIntervalMs = app.arguments().value(2).toInt(&streamed);
    FakeHttpServer service;
    service.on("POST", "/chat/completions",
        streamed
            ? FakeHttpServer::Reply::eventStreamChunks(ChatCompletionReplies::streamedWords(answer), wordIntervalMs)
            : FakeHttpServer::Reply::json(ChatCompletionReplies::completion(answer)));
    service.on("GET", "/models",
        FakeHttpServer::Reply::json(QJsonObject { { "data",
            QJsonArray { QJsonObject { { "id", "big-pickle" }, { "name", "Big Pickle" }, { "free", true } } } } }));
    std::printf("%s\n", qPrintable(service.baseUrl()));
    std::fflush(stdout);
    return QCoreApplication::exec();
}
