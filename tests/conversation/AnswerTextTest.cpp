#include "conversation/ReasoningFilter.h"
#include "conversation/SentenceSplitter.h"

#include <QTest>

// Shown text and spoken pieces of a streamed answer; each case also runs one character at a time.
class AnswerTextTest : public QObject
{
    Q_OBJECT

    static QStringList oneCharacterEach(const QStringList &deltas)
    {
        return deltas.join(QString()).split(QString(), Qt::SkipEmptyParts);
    }

private Q_SLOTS:
    // Reasoning blocks hide in any case and split anywhere; other angle brackets stay text.
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
        ReasoningFilter filter; // finish() leaves nothing behind: one filter serves every answer
        for (const auto &[deltas, visible] : cases) {
            for (const QStringList &run : { deltas, oneCharacterEach(deltas) }) {
                QString shown;
                for (const QString &delta : run)
                    shown += filter.feed(delta);
                QCOMPARE(shown + filter.finish(), visible);
            }
        }
        QCOMPARE(filter.feed(QStringLiteral("Bună <th")), QStringLiteral("Bună ")); // not held back for a tag
        QCOMPARE(filter.feed(QStringLiteral("ink>x")), QString());
        QCOMPARE(filter.feed(QStringLiteral("</think> ziua")), QStringLiteral(" ziua"));
    }

    // Abbreviations, initials and numbers do not end a sentence; a long first clause ends at its comma.
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
                QVERIFY(fromFeed.size() >= pieces.size() - 1); // only the last piece waits for the end
                const QString rest = splitter.finish();
                QCOMPARE(rest.isEmpty() ? fromFeed : fromFeed + QStringList { rest }, pieces);
            }
        }
    }
};

QTEST_GUILESS_MAIN(AnswerTextTest)
#include "AnswerTextTest.moc"
