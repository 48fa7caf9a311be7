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
        const auto row = [](const char *name, const QStringList &deltas, const char *visible) {
            QTest::newRow(name) << deltas << QString::fromUtf8(visible);
        };
        row("plain", { "Salut, ", "ce faci?" }, "Salut, ce faci?");
        row("whole block", { "<think>plan</think>Bună!" }, "Bună!");
        row("tags split between pieces", { "A<thi", "nk>secret</th", "ink>", "B<", "analysis>x<", "/analysis", ">C" },
            "ABC");
        row("any case", { "<THINK>x</Think>A<Analysis>y</ANALYSIS>B" }, "AB");
        row("never closes", { "Înainte <think>tot ", "restul </thi" }, "Înainte ");
        row("only its own closing tag ends a block", { "<think>a</analysis>b</think>c" }, "c");
        row("other angle brackets stay", { "3 < 5 și <b>", "</b> <thinking> <" }, "3 < 5 și <b></b> <thinking> <");
        row("an unfinished tag at the end is text", { "a <thi" }, "a <thi");
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
        const auto row = [](const char *name, const QStringList &deltas, const QStringList &pieces) {
            QTest::newRow(name) << deltas << pieces;
        };
        row("two sentences", { "Bună zi", "ua. Ce faci ", "azi?" }, { "Bună ziua.", "Ce faci azi?" });
        row("abbreviations", { "Dl. Popescu și dr. Ionescu au venit. Nr. 5 e aici, etc. Gata." },
            { "Dl. Popescu și dr. Ionescu au venit.", "Nr. 5 e aici, etc. Gata." });
        row("initials", { "I. L. Caragiale a scris mult. Da." }, { "I. L. Caragiale a scris mult.", "Da." });
        row("numbers", { "Costă 3.", "5 lei. Da." }, { "Costă 3.5 lei.", "Da." });
        row("first clause of four words", { "Ei bine, cred că ai dreptate, sincer. Apoi, desigur, am plecat acasă." },
            { "Ei bine, cred că ai dreptate,", "sincer.", "Apoi, desigur, am plecat acasă." });
        row("short clause, decimal comma", { "Are 3,5 grade, adică frig. Da." },
            { "Are 3,5 grade, adică frig.", "Da." });
        row("question and exclamation marks", { "Serios?! Nu cred! Ba da." }, { "Serios?!", "Nu cred!", "Ba da." });
        row("ellipsis", { "Hmm... Bine… Gata" }, { "Hmm...", "Bine…", "Gata" });
        row("closing quotes stay with their sentence", { "El a spus „Pleacă.” Apoi a tăcut." },
            { "El a spus „Pleacă.”", "Apoi a tăcut." });
        row("line breaks", { "Listă:\n- unu\n\n- doi" }, { "Listă:", "- unu", "- doi" });
        row("no end at all", { "fără niciun ", "sfârșit" }, { "fără niciun sfârșit" });
        row("blank", { " \n ", " " }, {});
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
