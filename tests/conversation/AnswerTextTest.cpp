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
    // Any case, tags split anywhere; only its own closing tag ends a block, a block never closed hides
    // the rest; other angle brackets, and an unfinished tag at the very end, are text.
    void reasoningNeverShows()
    {
        const std::pair<QStringList, QString> cases[] = {
            { { "Salut, ", "ce faci?" }, "Salut, ce faci?" },
            { { "<think>plan</think>Bună!" }, "Bună!" },
            { { "A<thi", "nk>secret</th", "ink>", "B<", "analysis>x<", "/analysis", ">C" }, "ABC" },
            { { "<THINK>x</Think>A<Analysis>y</ANALYSIS>B" }, "AB" },
            { { "Înainte <think>tot ", "restul </thi" }, "Înainte " },
            { { "<think>a</analysis>b</think>c" }, "c" },
            { { "3 < 5 și <b>", "</b> <thinking> <" }, "3 < 5 și <b></b> <thinking> <" },
            { { "a <thi" }, "a <thi" },
        };
        // finish() leaves nothing behind: the same filter serves the next answer.
        ReasoningFilter filter;
        for (const auto &[deltas, visible] : cases) {
            for (const QStringList &run : { deltas, oneCharacterEach(deltas) }) {
                QString shown;
                for (const QString &delta : run)
                    shown += filter.feed(delta);
                QCOMPARE(shown + filter.finish(), visible);
            }
        }
        // Visible text is not held back while a tag may be starting.
        QCOMPARE(filter.feed(QStringLiteral("Bună <th")), QStringLiteral("Bună "));
        QCOMPARE(filter.feed(QStringLiteral("ink>x")), QString());
        QCOMPARE(filter.feed(QStringLiteral("</think> ziua")), QStringLiteral(" ziua"));
    }

    // Abbreviations, initials and numbers do not end a sentence; a long first clause is spoken at its
    // comma; quotes stay with their sentence; line breaks end pieces; blank text is not spoken.
    void sentencesAreSpokenAsTheyComplete()
    {
        const std::pair<QStringList, QStringList> cases[] = {
            { { "Bună zi", "ua. Ce faci ", "azi?" }, { "Bună ziua.", "Ce faci azi?" } },
            { { "Dl. Popescu și dr. Ionescu au venit. Nr. 5 e aici, etc. Gata." },
                { "Dl. Popescu și dr. Ionescu au venit.", "Nr. 5 e aici, etc. Gata." } },
            { { "I. L. Caragiale a scris mult. Da." }, { "I. L. Caragiale a scris mult.", "Da." } },
            { { "Costă 3.", "5 lei. Da." }, { "Costă 3.5 lei.", "Da." } },
            { { "Ei bine, cred că ai dreptate, sincer. Apoi, desigur, am plecat acasă." },
                { "Ei bine, cred că ai dreptate,", "sincer.", "Apoi, desigur, am plecat acasă." } },
            { { "Are 3,5 grade, adică frig. Da." }, { "Are 3,5 grade, adică frig.", "Da." } },
            { { "Serios?! Nu cred! Ba da." }, { "Serios?!", "Nu cred!", "Ba da." } },
            { { "Hmm... Bine… Gata" }, { "Hmm...", "Bine…", "Gata" } },
            { { "El a spus „Pleacă.” Apoi a tăcut." }, { "El a spus „Pleacă.”", "Apoi a tăcut." } },
            { { "Listă:\n- unu\n\n- doi" }, { "Listă:", "- unu", "- doi" } },
            { { "fără niciun ", "sfârșit" }, { "fără niciun sfârșit" } },
            { { " \n ", " " }, {} },
        };
        SentenceSplitter splitter;
        for (const auto &[deltas, pieces] : cases) {
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
    }
};

QTEST_GUILESS_MAIN(AnswerTextTest)
#include "AnswerTextTest.moc"
