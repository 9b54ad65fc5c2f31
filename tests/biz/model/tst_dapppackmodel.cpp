#include "DAppPackModel.h"
#include "JsonUtil.h"
#include "testsupport.h"

#include <QtTest>

// Each row reads a manifest into a record that held "Before" and 9, both
// from the text and through the file loader, and looks at four members.
class tst_DAppPackModel : public QObject
{
    Q_OBJECT

private slots:
    void reads_data()
    {
        QTest::addColumn<QString>("kind"); // "text" both ways; the file alone: "bytes", "missing", "directory", "unreadable"
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<bool>("loaded"); // the file loader's result
        QTest::addColumn<QString>("nameEng");
        QTest::addColumn<QString>("version");
        QTest::addColumn<QString>("dir");
        QTest::addColumn<int>("count");

        auto count = [](const char* value) { return QByteArray(R"({"install":{"filesTotalCount":)") + value + "}}"; };
        QTest::newRow("plain keys") << "text" << QByteArray(R"({"base":{"version":"2.3.1","nameEng":"Demo"}})") << true << "Demo"
                                    << "2.3.1" << "" << 9;
        QTest::newRow("upper-case keys") << "text" << QByteArray(R"({"BASE":{"VERSION":"2.3.1","NAMEENG":"Demo"},"INSTALL":{"DIR":"d"}})")
                                         << true << "Demo" << "2.3.1" << "d" << 0;
        QTest::newRow("version as a number reads empty") << "text" << QByteArray(R"({"base":{"version":2.5}})") << true << "" << "" << "" << 9;
        QTest::newRow("VERSION then version: lower case sorts last")
            << "text" << QByteArray(R"({"base":{"version":"low","VERSION":"UP"}})") << true << "" << "low" << "" << 9;
        QTest::newRow("last key wins whatever it holds")
            << "text" << QByteArray(R"({"base":{"Version":"text","version":7}})") << true << "" << "" << "" << 9;
        QTest::newRow("UTF-8 text") << "text" << QByteArray(R"({"base":{"nameEng":"演示查看器"}})") << true << "演示查看器" << "" << "" << 9;
        QTest::newRow("unknown keys ignored at both levels")
            << "text" << QByteArray(R"({"base":{"nameEng":"Demo","colour":{"deep":[1,2]}},"extra":{"base":{"nameEng":"X"}}})") << true
            << "Demo" << "" << "" << 9;
        QTest::newRow("NUL after the object ends the text")
            << "text" << QByteArray("{\"base\":{\"nameEng\":\"Demo\"}}\0garbage", 35) << true << "Demo" << "" << "" << 9;
        QTest::newRow("section not an object: others still read")
            << "text" << QByteArray(R"({"base":5,"install":{"dir":"d"}})") << true << "" << "" << "d" << 0;
        QTest::newRow("section an array") << "text" << QByteArray(R"({"base":[{"nameEng":"Demo"}],"install":{"dir":"d"}})") << true
                                          << "" << "" << "d" << 0;
        QTest::newRow("BASE then base: only base survives")
            << "text" << QByteArray(R"({"BASE":{"nameEng":"Upper"},"base":{"version":"1"},"install":{"dir":"d"}})") << true << ""
            << "1" << "d" << 0;
        QTest::newRow("count: whole number") << "text" << count("137") << true << "Before" << "" << "" << 137;
        QTest::newRow("count: 12.0 is whole") << "text" << count("12.0") << true << "Before" << "" << "" << 12;
        QTest::newRow("count: 12.5 is not") << "text" << count("12.5") << true << "Before" << "" << "" << 0;
        QTest::newRow("count: int max") << "text" << count("2147483647") << true << "Before" << "" << "" << 2147483647;
        QTest::newRow("count: past int max") << "text" << count("2147483648") << true << "Before" << "" << "" << 0;
        QTest::newRow("count: negative") << "text" << count("-3") << true << "Before" << "" << "" << -3;
        QTest::newRow("count: string of digits") << "text" << count("\"137\"") << true << "Before" << "" << "" << 0;
        QTest::newRow("count: true") << "text" << count("true") << true << "Before" << "" << "" << 0;
        // The record is not cleared first: a text it cannot use leaves what was there.
        QTest::newRow("array at the top level") << "text" << QByteArray(R"([{"base":{"nameEng":"X"}}])") << true << "Before" << "" << ""
                                                << 9;
        QTest::newRow("not JSON") << "text" << QByteArray("base: nameEng") << true << "Before" << "" << "" << 9;
        QTest::newRow("empty object") << "text" << QByteArray("{}") << true << "Before" << "" << "" << 9;
        QTest::newRow("NUL inside the object")
            << "text" << QByteArray("{\"base\":{\"nameEng\":\"X\"}\0}", 25) << true << "Before" << "" << "" << 9;
        QTest::newRow("cut short") << "text" << QByteArray(R"({"base":{"nameEng":"X")") << true << "Before" << "" << "" << 9;
        QTest::newRow("empty file") << "bytes" << QByteArray() << false << "Before" << "" << "" << 9;
        QTest::newRow("first byte NUL") << "bytes" << QByteArray("\0{\"base\":{}}", 12) << false << "Before" << "" << "" << 9;
        QTest::newRow("Latin-1 bytes become replacement characters")
            << "bytes" << QByteArray("{\"base\":{\"nameEng\":\"caf\xe9\"}}") << true << QStringLiteral("caf\uFFFD") << "" << "" << 9;
        QTest::newRow("missing file") << "missing" << QByteArray() << false << "Before" << "" << "" << 9;
        QTest::newRow("a directory") << "directory" << QByteArray() << false << "Before" << "" << "" << 9;
        QTest::newRow("unreadable for its user") << "unreadable" << count("1") << false << "Before" << "" << "" << 9;
    }

    void reads()
    {
        QFETCH(QString, kind);
        QFETCH(QByteArray, json);
        const QTemporaryDir caseDir;
        const QString strChildDir = TestSupport::unprivilegedChildDir();
        const QString strPath = (strChildDir.isEmpty() ? caseDir.path() : strChildDir) + (kind == "directory" ? "" : "/mainifest.json");
        if (strChildDir.isEmpty() && kind != "missing" && kind != "directory")
            QVERIFY(TestSupport::writeFile(strPath, json) && (kind != "unreadable" || QFile::setPermissions(strPath, {})));
        // Root reads every file, so that case runs as an unprivileged user.
        if (kind == "unreadable")
            TAVELIN_RUN_UNPRIVILEGED(caseDir.path());

        QList<TAppPackInfo> infos{TAppPackInfo(), TAppPackInfo()};
        for (TAppPackInfo& info : infos) {
            info.base.nameEng = "Before";
            info.install.filesTotalCount = 9;
        }
        QTEST(JsonUtil::initObjFromJsonFile(strPath.toStdString(), infos[0]), "loaded");
        if (kind == "text")
            infos[1].fromJsonString(QString::fromUtf8(json.constData(), json.size()));
        else
            infos.removeLast();
        for (const TAppPackInfo& info : infos) {
            QTEST(QString::fromStdString(info.base.nameEng), "nameEng");
            QTEST(QString::fromStdString(info.base.version), "version");
            QTEST(QString::fromStdString(info.install.dir), "dir");
            QTEST(info.install.filesTotalCount, "count");
        }
    }

    void roundTrip()
    {
        // Every member is written: a default record's text resets one that held other values.
        TAppPackInfo original;
        TAppPackInfo copy;
        copy.base.nameEng = "Before";
        copy.fromJsonString(original.toJsonString());
        QVERIFY(copy == original);
        original.base = {"DemoViewer", "演示查看器", "2.3.1", "Sample \"Works\"", "https://x", "A\\B", "a@b"};
        original.install.defaultParentDir = "/opt/";
        original.install.dir = "demo viewer";
        original.install.appIcon = "demo.png";
        original.install.filesTotalCount = 2147483647;
        original.install.desktopFile = "demo.desktop";
        original.files.localDir = "/tmp/pack/";
        original.files.mainExePath = "/tmp/pack/bin/demo";
        original.files.autoRun = -1;
        original.appearance.iconPath = "icon";
        original.appearance.desktopPath = "desk";
        original.appearance.shortcutOnDesktop = 1;
        original.appearance.shortcutOnStartMenu = 2;
        original.other.installPkgPath = "/out";
        original.other.installPkgName = "demo-2.3.1";
        copy.fromJsonString(original.toJsonString());
        QVERIFY(copy == original);
        QVERIFY(copy != TAppPackInfo());
    }
};

QTEST_GUILESS_MAIN(tst_DAppPackModel)
#include "tst_dapppackmodel.moc"
