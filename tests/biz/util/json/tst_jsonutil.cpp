#include "DAppPackModel.h"
#include "JsonUtil.h"
#include "testsupport.h"

#include <QtTest>

class tst_JsonUtil : public QObject
{
    Q_OBJECT

private slots:
    void initObjFromJsonFile_data();
    void initObjFromJsonFile();
};

void tst_JsonUtil::initObjFromJsonFile_data()
{
    QTest::addColumn<QString>("kind"); // how the file stands: "file", "missing", "directory" or "unreadable"
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<bool>("result");
    QTest::addColumn<QString>("nameEng");

    const QByteArray baDemo(R"({"base":{"nameEng":"Demo"}})");
    QTest::newRow("valid manifest") << "file" << baDemo << true << "Demo";
    QTest::newRow("missing file") << "missing" << QByteArray() << false << "unchanged";
    QTest::newRow("a directory") << "directory" << QByteArray() << false << "unchanged";
    QTest::newRow("unreadable for its user") << "unreadable" << baDemo << false << "unchanged";
    QTest::newRow("empty file") << "file" << QByteArray() << false << "unchanged";
    QTest::newRow("first byte NUL") << "file" << QByteArray("\0{\"base\":{}}", 12) << false << "unchanged";
    QTest::newRow("not JSON") << "file" << QByteArray("nameEng=Demo") << true << "unchanged";
    QTest::newRow("array at the top level") << "file" << QByteArray(R"([{"base":{"nameEng":"X"}}])") << true << "unchanged";
    QTest::newRow("NUL behind the object") << "file" << QByteArray("{\"base\":{\"nameEng\":\"Demo\"}}\0trailing", 36) << true << "Demo";
    QTest::newRow("NUL inside the object") << "file" << QByteArray("{\"base\":{\"nameEng\":\"Demo\"}\0}", 28) << true << "unchanged";
    QTest::newRow("Latin-1 bytes become replacement characters")
        << "file" << QByteArray("{\"base\":{\"nameEng\":\"caf\xe9\"}}") << true << QStringLiteral("caf\uFFFD");
}

void tst_JsonUtil::initObjFromJsonFile()
{
    QFETCH(QString, kind);
    QFETCH(QByteArray, content);
    const QTemporaryDir caseDir;
    const QString strDir = TestSupport::unprivilegedChildDir().isEmpty() ? caseDir.path() : TestSupport::unprivilegedChildDir();
    const QString strPath = strDir + (kind == "directory" ? "" : "/mainifest.json");
    if (TestSupport::unprivilegedChildDir().isEmpty() && kind != "missing" && kind != "directory")
        QVERIFY(TestSupport::writeFile(strPath, content));
    // Root reads every file, so that case runs as an unprivileged user.
    if (kind == "unreadable") {
        if (TestSupport::unprivilegedChildDir().isEmpty())
            QVERIFY(QFile::setPermissions(strPath, QFileDevice::Permissions()));
        TAVELIN_RUN_UNPRIVILEGED(strDir);
    }

    TAppPackInfo info;
    info.base.nameEng = "unchanged";
    QTEST(JsonUtil::initObjFromJsonFile(strPath.toStdString(), info), "result");
    QTEST(QString::fromStdString(info.base.nameEng), "nameEng");
}

QTEST_GUILESS_MAIN(tst_JsonUtil)
#include "tst_jsonutil.moc"
