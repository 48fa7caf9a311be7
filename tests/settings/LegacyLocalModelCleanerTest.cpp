#include "settings/LegacyLocalModelCleaner.h"

#include "SettingsTestSupport.h"
#include "TemporaryHome.h"

#include <QSettings>
#include <QTest>

class LegacyLocalModelCleanerTest : public QObject
{
    Q_OBJECT

    std::unique_ptr<TemporaryHome> m_home;
    QString cache(const QString &relative) const { return m_home->cacheHome() + '/' + relative; }
    static void makeFile(const QString &path) { SettingsTestSupport::writeFile(path, "weights"); }

private Q_SLOTS:
    void init() { m_home = std::make_unique<TemporaryHome>(); }

    // Only Kelo's own, once per installation; a flag that does not read as true counts as unset.
    void onlyKelosOwnLegacyModelsAreRemovedOnce()
    {
        const QString data = m_home->dataHome() + "/Kelo/";
        const QStringList legacy { cache("Kelo/huggingface/hub/Models--MLX-Community--Qwen2.5-1.5B/snapshots/a/m.bin"),
            cache("Kelo/KeloCompanion/models--mlx-community--gemma-2-2b/config.json"),
            data + "models/mlx-community/Qwen3-4B/weights.npz", data + "models/MLX-community/gemma-3/tokenizer.json" };
        // What other programs downloaded into the shared caches is theirs.
        const QStringList kept { cache("huggingface/hub/models--mlx-community--gemma-2-2b/config.json"),
            cache("Kelo/models/google/gemma-3/w.bin"), data + "models/mlx-community/llama/weights.npz" };
        for (const QString &path : legacy + kept)
            makeFile(path);
        LegacyLocalModelCleaner::runOnce().waitForFinished();
        for (const QString &path : legacy)
            QVERIFY2(!QFile::exists(path), qPrintable(path));
        for (const QString &path : kept)
            QVERIFY2(QFile::exists(path), qPrintable(path));
        // A matching folder goes whole, itself included, and nothing above it.
        QVERIFY(!QFileInfo::exists(cache("Kelo/huggingface/hub/Models--MLX-Community--Qwen2.5-1.5B")));
        QVERIFY(QFileInfo::exists(cache("Kelo/huggingface/hub")));

        const QString late = cache("Kelo/models--mlx-community--qwen-late/w.bin");
        makeFile(late);
        QVERIFY(LegacyLocalModelCleaner::runOnce().isFinished());
        QThreadPool::globalInstance()->waitForDone();
        QVERIFY(QFile::exists(late));
        QSettings("Kelo", "KeloCompanion").setValue(LegacyLocalModelCleaner::flagKey, "poate");
        LegacyLocalModelCleaner::runOnce().waitForFinished();
        QVERIFY(!QFile::exists(late));
    }

    // Matches go whole, in order, without visiting hidden entries or following symbolic links.
    void matchesAreTakenWholeInOrderAndLinksNeverFollowed()
    {
        makeFile(cache("b/models--mlx-community--qwen-7b/inner/models--mlx-community--gemma/x.bin"));
        makeFile(cache("a/mlx-community/gemma-2/y.bin"));
        makeFile(cache(".hidden/mlx-community/qwen/z.bin"));
        makeFile(cache("c/.models--mlx-community--qwen-0.5b"));
        QTemporaryDir outside;
        makeFile(outside.path() + "/mlx-community/qwen/keep.bin");
        QVERIFY(QFile::link(outside.path(), cache("link-to-outside")));
        QVERIFY(QFile::link(outside.path() + "/mlx-community/qwen", cache("models--mlx-community--qwen-link")));

        QCOMPARE(LegacyLocalModelCleaner::removeLegacyModels(m_home->cacheHome()),
            (QStringList { cache("a/mlx-community/gemma-2"), cache("b/models--mlx-community--qwen-7b"),
                cache("models--mlx-community--qwen-link") }));
        QVERIFY(QFile::exists(cache(".hidden/mlx-community/qwen/z.bin")));
        QVERIFY(QFile::exists(cache("c/.models--mlx-community--qwen-0.5b")));
        QVERIFY(!QFileInfo(cache("models--mlx-community--qwen-link")).isSymLink());
        QVERIFY(QFile::exists(outside.path() + "/mlx-community/qwen/keep.bin"));
    }
};

QTEST_GUILESS_MAIN(LegacyLocalModelCleanerTest)
#include "LegacyLocalModelCleanerTest.moc"
