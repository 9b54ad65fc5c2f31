// Replays the committed fuzz corpus, crash inputs included once they are
// found, through the fuzz targets' own checks in the ordinary build.
#include "../../fuzz/binareplay.h"
#include "../../fuzz/manifestreplay.h"

#include <QDir>
#include <QTemporaryDir>
#include <QtTest>

class tst_FuzzReplay : public QObject
{
    Q_OBJECT

private slots:
    void replaysCorpus_data();
    void replaysCorpus();
};

void tst_FuzzReplay::replaysCorpus_data()
{
    QTest::addColumn<QString>("target");
    QTest::addColumn<QString>("path");
    const QDir dirCorpus(QStringLiteral(TAVELIN_SOURCE_DIR "/fuzz/corpus"));
    for (const QString& strTarget : {QStringLiteral("manifest"), QStringLiteral("binalib")}) {
        const QDir dir(dirCorpus.filePath(strTarget));
        const QStringList names = dir.entryList(QDir::Files, QDir::Name);
        if (names.isEmpty())
            QTest::addRow("%s: no corpus", qPrintable(strTarget)) << strTarget << QString();
        for (const QString& strName : names)
            QTest::addRow("%s/%s", qPrintable(strTarget), qPrintable(strName)) << strTarget << dir.filePath(strName);
    }
}

void tst_FuzzReplay::replaysCorpus()
{
    QFETCH(QString, target);
    QFETCH(QString, path);
    QVERIFY2(!path.isEmpty(), "the committed corpus must not be empty");
    QFile file(path);
    QVERIFY2(file.open(QIODevice::ReadOnly), qPrintable(path));
    const QByteArray baInput = file.readAll();

    if (target == "binalib") {
        QVERIFY(FuzzReplay::replayBinaDecoders(baInput));
        return;
    }
    QTemporaryDir dirScratch;
    QVERIFY(dirScratch.isValid());
    const std::string scratchPath = QDir(dirScratch.path()).filePath("mainifest.json").toStdString();
    QVERIFY(FuzzReplay::replayManifest(baInput, scratchPath));
}

QTEST_GUILESS_MAIN(tst_FuzzReplay)
#include "tst_fuzzreplay.moc"
