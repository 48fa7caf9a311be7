#include "voice/SpeechText.h"

#include "voice/ProviderError.h"

#include <QTest>

using namespace SpeechText;

// What reaches the voices: text cleaning, sentence splitting and rates (SSML escaping is checked on the Azure request),
// and the error a provider's refusal turns into.
class SpeechTextTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleaning_data()
    {
        QTest::addColumn<QString>("reply");
        QTest::addColumn<QString>("spoken");

        QTest::newRow("reasoning blocks, any case, across lines")
            << "<THINK>plan\nsteps</think>Bună! <analysis>x</analysis>Gata."
            << "Bună! Gata.";
        QTest::newRow("only the first closing tag ends a block") << "<think>a</think>unu <think>b</think>doi"
                                                                 << "unu doi";
        QTest::newRow("a markdown link keeps its text")
            << "Vezi [pagina despre Iași](https://ro.wikipedia.org/wiki/Ia%C8%99i) acum."
            << "Vezi pagina despre Iași acum.";
        QTest::newRow("a bare address becomes the word link") << "Sursa: https://example.ro/a?b=c, apoi restul."
                                                              << "Sursa: link apoi restul.";
        QTest::newRow("markup characters become blanks") << "## Titlu\n* **unu** | _doi_\n> citat"
                                                         << "Titlu unu doi citat";
        QTest::newRow("white space collapses and is trimmed") << "  \n\tunu \r\n\n doi \t "
                                                              << "unu doi";
        QTest::newRow("underscores inside an address are blanked before it is recognised") << "http://a.ro/x_y"
                                                                                           << "link y";
        QTest::newRow("a no-break space ends an address, and collapses")
            << u"Vezi https://a.ro\u00a0acum\u2003gata."_qs << "Vezi link acum gata.";
        QTest::newRow("only reasoning") << "<think>doar gânduri</think>"
                                        << "";
        QTest::newRow("only markup") << "### *** ___ |||"
                                     << "";
        QTest::newRow("an empty reasoning block") << "<analysis>\n</analysis>  \n "
                                                  << "";
    }

    void cleaning()
    {
        QFETCH(QString, reply);
        QFETCH(QString, spoken);
        QCOMPARE(cleanForSpeech(reply), spoken);
    }

    void sentencesAreSplitTrimmedAndNeverEmpty()
    {
        QCOMPARE(sentences(QStringLiteral("Bună ziua. Ce mai faci? Eu sunt bine!")),
            QStringList(
                { QStringLiteral("Bună ziua."), QStringLiteral("Ce mai faci?"), QStringLiteral("Eu sunt bine!") }));
        QCOMPARE(sentences(QStringLiteral("fără punct")), QStringList { QStringLiteral("fără punct") });
        QCOMPARE(sentences(QStringLiteral("   ")), QStringList { QStringLiteral("   ") });
    }

    void ratesOfTheUtterancesAndTheirQtScale()
    {
        QCOMPARE(utteranceRate(0.5, 0), 0.505);
        QCOMPARE(utteranceRate(0.5, 7), 0.5);
        for (qsizetype i : { 0, 2 }) {
            QCOMPARE(utteranceRate(0.3, i), 0.4);
            QCOMPARE(utteranceRate(0.6, i), 0.52);
        }
        QCOMPARE(utteranceRate(0.52, 0), 0.52);
        QCOMPARE(utteranceRate(std::numeric_limits<double>::quiet_NaN(), 1), 0.5);

        QCOMPARE(qtRate(0.5), 0.0);
        QCOMPARE(qtRate(0.0), -1.0);
        QVERIFY(qFuzzyCompare(qtRate(0.4), -0.2));
        QCOMPARE(qtRate(3.0), 1.0);
        QCOMPARE(qtRate(std::numeric_limits<double>::infinity()), 0.0);
    }

    // Body and status of ordinary refusals are covered against a server in CloudSpeechClientTest.
    void providerErrorsOfOddReplies()
    {
        const auto binary = ProviderError::fromResponse(QStringLiteral("ElevenLabs"), 502, "\xff\xfe\x00garbage");
        QCOMPARE(binary.description(), QStringLiteral("ElevenLabs nu a putut fi redat."));
        QCOMPARE(ProviderError::fromResponse(QStringLiteral("ElevenLabs"), 0, "x").code(), -1);
        // Two-byte and four-byte characters: the cut counts characters, never splits one.
        const QString body
            = QStringLiteral("ă").repeated(599) + QStringLiteral("😀") + QStringLiteral("x").repeated(50);
        const ProviderError error = ProviderError::fromResponse(QStringLiteral("Google Cloud"), 403, body.toUtf8());
        QCOMPARE(error.description(), QStringLiteral("ă").repeated(599) + QStringLiteral("😀"));
    }
};

QTEST_GUILESS_MAIN(SpeechTextTest)
#include "SpeechTextTest.moc"
