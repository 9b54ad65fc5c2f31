#include "DAppPackModel.h"

#include <QtTest>

// Each row reads a JSON text into a record that held "Before" and 9, and
// looks at four members.
class tst_DAppPackModel : public QObject
{
    Q_OBJECT

private slots:
    void fromJsonString_data();
    void fromJsonString();
    void roundTrip();
};

void tst_DAppPackModel::fromJsonString_data()
{
    QTest::addColumn<QString>("json");
    QTest::addColumn<QString>("nameEng");
    QTest::addColumn<QString>("version");
    QTest::addColumn<QString>("dir");
    QTest::addColumn<int>("count");

    auto count = [](const char* value) { return QStringLiteral(R"({"install":{"filesTotalCount":%1}})").arg(value); };
    QTest::newRow("plain keys") << R"({"base":{"version":"2.3.1","nameEng":"Demo"}})" << "Demo" << "2.3.1" << "" << 9;
    QTest::newRow("upper-case keys") << R"({"BASE":{"VERSION":"2.3.1","NAMEENG":"Demo"},"INSTALL":{"DIR":"d"}})" << "Demo" << "2.3.1" << "d" << 0;
    QTest::newRow("version as a number reads empty") << R"({"base":{"version":2.5}})" << "" << "" << "" << 9;
    QTest::newRow("VERSION then version: lower case sorts last") << R"({"base":{"version":"low","VERSION":"UP"}})" << "" << "low" << "" << 9;
    QTest::newRow("last key wins whatever it holds") << R"({"base":{"Version":"text","version":7}})" << "" << "" << "" << 9;
    QTest::newRow("UTF-8 text") << R"({"base":{"nameEng":"演示查看器"}})" << "演示查看器" << "" << "" << 9;
    QTest::newRow("unknown keys ignored at both levels")
        << R"({"base":{"nameEng":"Demo","colour":{"deep":[1,2]}},"extra":{"base":{"nameEng":"X"}}})" << "Demo" << "" << "" << 9;
    QTest::newRow("NUL after the object ends the text")
        << QString::fromUtf8(R"({"base":{"nameEng":"Demo"}})") + QChar(0) + "garbage" << "Demo" << "" << "" << 9;
    QTest::newRow("section not an object: others still read") << R"({"base":5,"install":{"dir":"d"}})" << "" << "" << "d" << 0;
    QTest::newRow("section an array") << R"({"base":[{"nameEng":"Demo"}],"install":{"dir":"d"}})" << "" << "" << "d" << 0;
    QTest::newRow("BASE then base: only base survives")
        << R"({"BASE":{"nameEng":"Upper"},"base":{"version":"1"},"install":{"dir":"d"}})" << "" << "1" << "d" << 0;
    QTest::newRow("count: whole number") << count("137") << "Before" << "" << "" << 137;
    QTest::newRow("count: 12.0 is whole") << count("12.0") << "Before" << "" << "" << 12;
    QTest::newRow("count: 12.5 is not") << count("12.5") << "Before" << "" << "" << 0;
    QTest::newRow("count: int max") << count("2147483647") << "Before" << "" << "" << 2147483647;
    QTest::newRow("count: past int max") << count("2147483648") << "Before" << "" << "" << 0;
    QTest::newRow("count: negative") << count("-3") << "Before" << "" << "" << -3;
    QTest::newRow("count: string of digits") << count("\"137\"") << "Before" << "" << "" << 0;
    QTest::newRow("count: true") << count("true") << "Before" << "" << "" << 0;
    // The record is not cleared first: a text it cannot use leaves what was there.
    QTest::newRow("array at the top level") << R"([{"base":{"nameEng":"X"}}])" << "Before" << "" << "" << 9;
    QTest::newRow("not JSON") << "base: nameEng" << "Before" << "" << "" << 9;
    QTest::newRow("empty object") << "{}" << "Before" << "" << "" << 9;
    QTest::newRow("NUL inside the object") << QStringLiteral(R"({"base":{"nameEng":"X"})") + QChar(0) + "}" << "Before" << "" << "" << 9;
    QTest::newRow("cut short") << R"({"base":{"nameEng":"X")" << "Before" << "" << "" << 9;
}

void tst_DAppPackModel::fromJsonString()
{
    QFETCH(QString, json);
    TAppPackInfo info;
    info.base.nameEng = "Before";
    info.install.filesTotalCount = 9;
    info.fromJsonString(json);
    QTEST(QString::fromStdString(info.base.nameEng), "nameEng");
    QTEST(QString::fromStdString(info.base.version), "version");
    QTEST(QString::fromStdString(info.install.dir), "dir");
    QTEST(info.install.filesTotalCount, "count");
}

void tst_DAppPackModel::roundTrip()
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

QTEST_GUILESS_MAIN(tst_DAppPackModel)
#include "tst_dapppackmodel.moc"
