#include "DAppPackModel.h"
#include "JsonUtil.h"
#include "testsupport.h"

#include <QtTest>

#include <unistd.h>

class tst_JsonUtil : public QObject
{
    Q_OBJECT

private slots:
    void initObjFromJsonFile_data();
    void initObjFromJsonFile();
    void missingFile();
    void directoryIsNoFile();
    void unreadableFile();

private:
    QTemporaryDir tempDir;
};

void tst_JsonUtil::initObjFromJsonFile_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<bool>("result");
    QTest::addColumn<QString>("nameEng");

    QTest::newRow("valid manifest") << QByteArray(R"({"base":{"nameEng":"Demo"}})") << true << "Demo";
    QTest::newRow("empty file") << QByteArray() << false << "unchanged";
    QTest::newRow("first byte NUL") << QByteArray("\0{\"base\":{}}", 12) << false << "unchanged";
    QTest::newRow("not JSON") << QByteArray("nameEng=Demo") << true << "unchanged";
    QTest::newRow("whitespace only") << QByteArray("\n  \n") << true << "unchanged";
    QTest::newRow("array at the top level") << QByteArray(R"([{"base":{"nameEng":"X"}}])") << true << "unchanged";
    QTest::newRow("NUL behind the object")
        << QByteArray("{\"base\":{\"nameEng\":\"Demo\"}}\0trailing", 36) << true << "Demo";
    QTest::newRow("NUL inside the object")
        << QByteArray("{\"base\":{\"nameEng\":\"Demo\"}\0}", 28) << true << "unchanged";
    QTest::newRow("Latin-1 bytes become replacement characters")
        << QByteArray("{\"base\":{\"nameEng\":\"caf\xe9\"}}") << true << QStringLiteral("caf\uFFFD");
}

void tst_JsonUtil::initObjFromJsonFile()
{
    QFETCH(QByteArray, content);
    const QString strPath = tempDir.filePath(QStringLiteral("mainifest.json"));
    QVERIFY(TestSupport::writeFile(strPath, content));

    TAppPackInfo info;
    info.base.nameEng = "unchanged";
    QTEST(JsonUtil::initObjFromJsonFile(strPath.toStdString(), info), "result");
    QTEST(QString::fromStdString(info.base.nameEng), "nameEng");
}

void tst_JsonUtil::missingFile()
{
    TAppPackInfo info;
    info.base.nameEng = "unchanged";
    QVERIFY(!JsonUtil::initObjFromJsonFile(tempDir.filePath(QStringLiteral("none.json")).toStdString(), info));
    QCOMPARE(info.base.nameEng, std::string("unchanged"));
}

void tst_JsonUtil::directoryIsNoFile()
{
    TAppPackInfo info;
    QVERIFY(!JsonUtil::initObjFromJsonFile(tempDir.path().toStdString(), info));
}

// Root reads every file, so the case runs as an unprivileged user.
void tst_JsonUtil::unreadableFile()
{
    QTemporaryDir caseDir;
    const QString strDir = TestSupport::isUnprivilegedChild() ? TestSupport::unprivilegedChildDir() : caseDir.path();
    const QString strPath = strDir + QStringLiteral("/locked.json");
    if (!TestSupport::isUnprivilegedChild()) {
        QVERIFY(TestSupport::writeFile(strPath, R"({"base":{"nameEng":"Demo"}})"));
        QVERIFY(QFile::setPermissions(strPath, QFileDevice::Permissions()));
    }
    TAVELIN_RUN_UNPRIVILEGED(strDir);

    TAppPackInfo info;
    QVERIFY(!JsonUtil::initObjFromJsonFile(strPath.toStdString(), info));
    QVERIFY(info.base.nameEng.empty());
}

QTEST_GUILESS_MAIN(tst_JsonUtil)
#include "tst_jsonutil.moc"
