#include "conversation/ReasoningFilter.h"
#include "conversation/SentenceSplitter.h"

#include <QTest>

namespace {

QStringList oneCharacterEach(const QStringList &deltas)
{
    QStringList characters;
    for (const QChar c : deltas.join(QString()))
        characters.append(QString(c));
    return characters;
}

} // namespace

// Answer text as it streams in: what is shown (reasoning left out) and the pieces spoken one by one.
// Each case runs with the service's pieces and again one character at a time: where the text is cut
// must never change the result.
class AnswerTextTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void reasoningNeverShows_data()
    {
        QTest::addColumn<QStringList>("deltas");
        QTest::addColumn<QString>("visible");

        QTest::newRow("plain") << QStringList { "Salut, ", "ce faci?" } << "Salut, ce faci?";
        QTest::newRow("whole block") << QStringList { "<think>plan</think>Bună!" } << "Bună!";
        QTest::newRow("tags split between pieces")
            << QStringList { "A<thi", "nk>secret</th", "ink>", "B<", "analysis>x<", "/analysis", ">C" } << "ABC";
        QTest::newRow("any case") << QStringList { "<THINK>x</Think>A<Analysis>y</ANALYSIS>B" } << "AB";
        QTest::newRow("never closes") << QStringList { "Înainte <think>tot ", "restul </thi" } << "Înainte ";
        QTest::newRow("only its own closing tag ends a block")
            << QStringList { "<think>a</analysis>b</think>c" } << "c";
        QTest::newRow("other angle brackets stay")
            << QStringList { "3 < 5 și <b>", "</b> <thinking> <" } << "3 < 5 și <b></b> <thinking> <";
        QTest::newRow("an unfinished tag at the end is text") << QStringList { "a <thi" } << "a <thi";
    }

    void reasoningNeverShows()
    {
        QFETCH(QStringList, deltas);
        QFETCH(QString, visible);
        // finish() leaves nothing behind: the same filter serves the next answer.
        ReasoningFilter filter;
        for (const QStringList &run : { deltas, oneCharacterEach(deltas) }) {
            QString shown;
            for (const QString &delta : run)
                shown += filter.feed(delta);
            QCOMPARE(shown + filter.finish(), visible);
        }
        // Visible text is not held back while a tag may be starting.
        QCOMPARE(filter.feed(QStringLiteral("Bună <th")), QStringLiteral("Bună "));
        QCOMPARE(filter.feed(QStringLiteral("ink>x")), QString());
        QCOMPARE(filter.feed(QStringLiteral("</think> ziua")), QStringLiteral(" ziua"));
    }

    void sentencesAreSpokenAsTheyComplete_data()
    {
        QTest::addColumn<QStringList>("deltas");
        QTest::addColumn<QStringList>("pieces");

        QTest::newRow("two sentences") << QStringList { "Bună zi", "ua. Ce faci ", "azi?" }
                                       << QStringList { "Bună ziua.", "Ce faci azi?" };
        QTest::newRow("abbreviations") << QStringList {
            "Dl. Popescu și dr. Ionescu au venit. Nr. 5 e aici, etc. Gata."
        } << QStringList { "Dl. Popescu și dr. Ionescu au venit.", "Nr. 5 e aici, etc. Gata." };
        QTest::newRow("initials") << QStringList { "I. L. Caragiale a scris mult. Da." }
                                  << QStringList { "I. L. Caragiale a scris mult.", "Da." };
        QTest::newRow("numbers") << QStringList { "Costă 3.", "5 lei. Da." } << QStringList { "Costă 3.5 lei.", "Da." };
        QTest::newRow("first clause of four words")
            << QStringList { "Ei bine, cred că ai dreptate, sincer. Apoi, desigur, am plecat acasă." }
            << QStringList { "Ei bine, cred că ai dreptate,", "sincer.", "Apoi, desigur, am plecat acasă." };
        QTest::newRow("short clause, decimal comma")
            << QStringList { "Are 3,5 grade, adică frig. Da." } << QStringList { "Are 3,5 grade, adică frig.", "Da." };
        QTest::newRow("question and exclamation marks")
            << QStringList { "Serios?! Nu cred! Ba da." } << QStringList { "Serios?!", "Nu cred!", "Ba da." };
        QTest::newRow("ellipsis") << QStringList { "Hmm... Bine… Gata" } << QStringList { "Hmm...", "Bine…", "Gata" };
        QTest::newRow("closing quotes stay with their sentence")
            << QStringList { "El a spus „Pleacă.” Apoi a tăcut." }
            << QStringList { "El a spus „Pleacă.”", "Apoi a tăcut." };
        QTest::newRow("line breaks") << QStringList { "Listă:\n- unu\n\n- doi" }
                                     << QStringList { "Listă:", "- unu", "- doi" };
        QTest::newRow("no end at all") << QStringList { "fără niciun ", "sfârșit" }
                                       << QStringList { "fără niciun sfârșit" };
        QTest::newRow("blank") << QStringList { " \n ", " " } << QStringList {};
    }

    void sentencesAreSpokenAsTheyComplete()
    {
        QFETCH(QStringList, deltas);
        QFETCH(QStringList, pieces);
        SentenceSplitter splitter;
        for (const QStringList &run : { deltas, oneCharacterEach(deltas) }) {
            QStringList fromFeed;
            for (const QString &delta : run)
                fromFeed += splitter.feed(delta);
            // Only the last piece may wait for the end of the answer.
            QVERIFY(fromFeed.size() >= pieces.size() - 1);
            const QString rest = splitter.finish();
            QCOMPARE(rest.isEmpty() ? fromFeed : fromFeed + QStringList { rest }, pieces);
        }
    }
};

QTEST_GUILESS_MAIN(AnswerTextTest)
#include "AnswerTextTest.moc"
