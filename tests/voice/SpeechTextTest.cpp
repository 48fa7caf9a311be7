#include "voice/SpeechText.h"

#include <QTest>

#include <functional>

using namespace Qt::StringLiterals;
using Call = std::function<QString(const QString &)>;
Q_DECLARE_METATYPE(Call)

// What reaches the voices: cleaned text, sentences and rates (SSML escaping is checked on the Azure
// request). Each row is one pure function of a text.
class SpeechTextTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void pureFunctions_data()
    {
        QTest::addColumn<Call>("call");
        QTest::addColumn<QString>("input");
        QTest::addColumn<QString>("expected");
        const Call clean = &SpeechText::cleanForSpeech;
        const Call split = [](const QString &text) { return SpeechText::sentences(text).join(u'|'); };
        const Call rate = [](const QString &in) {
            return QString::number(
                SpeechText::utteranceRate(in.section(u' ', 0, 0).toDouble(), in.section(u' ', 1).toInt()));
        };
        const Call qtRate = [](const QString &rate) { return QString::number(SpeechText::qtRate(rate.toDouble())); };
        QTest::newRow("reasoning blocks, any case, across lines")
            << clean << "<THINK>plan\nsteps</think>Bună! <analysis>x</analysis>Gata." << u"Bună! Gata."_s;
        QTest::newRow("closing tag ends a block") << clean << "<think>a</think>unu <think>b</think>doi" << u"unu doi"_s;
        QTest::newRow("markdown link keeps its text")
            << clean << "Vezi [pagina](https://ro.wikipedia.org/wiki/Ia%C8%99i) acum." << u"Vezi pagina acum."_s;
        QTest::newRow("bare address") << clean << "Sursa: https://example.ro/a?b=c, apoi." << u"Sursa: link apoi."_s;
        QTest::newRow("markup becomes blanks")
            << clean << "## Titlu\n* **unu** | _doi_\n> citat" << u"Titlu unu doi citat"_s;
        QTest::newRow("white space collapses and is trimmed") << clean << "  \n\tunu \r\n\n doi \t " << u"unu doi"_s;
        QTest::newRow("a no-break space ends an address, and collapses")
            << clean << u"Vezi https://a.ro\u00a0acum\u2003gata."_s << u"Vezi link acum gata."_s;
        QTest::newRow("sentences, trimmed")
            << split << "Bună ziua. Ce mai faci? Eu sunt bine!" << u"Bună ziua.|Ce mai faci?|Eu sunt bine!"_s;
        QTest::newRow("only blanks stay one piece") << split << "   " << u"   "_s;
        QTest::newRow("first utterance a little faster") << rate << "0.5 0" << u"0.505"_s;
        QTest::newRow("later utterances at the rate") << rate << "0.5 7" << u"0.5"_s;
        QTest::newRow("slow clamped") << rate << "0.3 2" << u"0.4"_s;
        QTest::newRow("fast clamped, the first too") << rate << "0.6 0" << u"0.52"_s;
        QTest::newRow("stored rate not a number") << rate << "nan 1" << u"0.5"_s;
        QTest::newRow("qt scale") << qtRate << "0.4" << u"-0.2"_s;
        QTest::newRow("qt scale clamped") << qtRate << "3" << u"1"_s;
        QTest::newRow("qt scale of infinity") << qtRate << "inf" << u"0"_s;
    }

    void pureFunctions()
    {
        QFETCH(Call, call);
        QFETCH(QString, input);
        QFETCH(QString, expected);
        QCOMPARE(call(input), expected);
    }
};

QTEST_GUILESS_MAIN(SpeechTextTest)
#include "SpeechTextTest.moc"
