#include "DAppPackModel.h"

#include <QtTest>

// Rows compare a few members of the record read from a JSON text; "-" as a
// text means the member keeps its default.
class tst_DAppPackModel : public QObject
{
    Q_OBJECT

private slots:
    void textMembers_data();
    void textMembers();
    void integerMembers_data();
    void integerMembers();
    void sections_data();
    void sections();
    void textLeftUnchanged_data();
    void textLeftUnchanged();
    void roundTrip_data();
    void roundTrip();
};

static TAppPackInfo loaded(const QString& strJson)
{
    TAppPackInfo info;
    info.fromJsonString(strJson);
    return info;
}

void tst_DAppPackModel::textMembers_data()
{
    QTest::addColumn<QString>("json");
    QTest::addColumn<QString>("version");
    QTest::addColumn<QString>("nameEng");

    QTest::newRow("plain keys") << R"({"base":{"version":"2.3.1","nameEng":"Demo"}})" << "2.3.1" << "Demo";
    QTest::newRow("upper-case keys") << R"({"BASE":{"VERSION":"2.3.1","NAMEENG":"Demo"}})" << "2.3.1" << "Demo";
    QTest::newRow("mixed-case keys") << R"({"bAsE":{"VeRsIoN":"2.3.1","nameeng":"Demo"}})" << "2.3.1" << "Demo";
    QTest::newRow("version as a number reads empty") << R"({"base":{"version":2.5}})" << "" << "";
    QTest::newRow("version as null reads empty") << R"({"base":{"version":null}})" << "" << "";
    QTest::newRow("VERSION then version: lower case sorts last")
        << R"({"base":{"version":"low","VERSION":"UP"}})" << "low" << "";
    QTest::newRow("last key wins whatever it holds")
        << R"({"base":{"Version":"text","version":7}})" << "" << "";
    QTest::newRow("UTF-8 text") << R"({"base":{"nameEng":"演示查看器"}})" << "" << "演示查看器";
    QTest::newRow("unknown keys ignored at both levels")
        << R"({"base":{"nameEng":"Demo","colour":{"deep":[1,2]}},"extra":{"base":{"nameEng":"X"}}})" << "" << "Demo";
    QTest::newRow("NUL after the object ends the text")
        << QString::fromUtf8(R"({"base":{"nameEng":"Demo"}})") + QChar(0) + QStringLiteral("garbage") << "" << "Demo";
}

void tst_DAppPackModel::textMembers()
{
    QFETCH(QString, json);
    const TAppPackInfo info = loaded(json);
    QTEST(QString::fromStdString(info.base.version), "version");
    QTEST(QString::fromStdString(info.base.nameEng), "nameEng");
}

void tst_DAppPackModel::integerMembers_data()
{
    QTest::addColumn<QString>("value");
    QTest::addColumn<int>("expected");

    QTest::newRow("whole number") << "137" << 137;
    QTest::newRow("12.0 is whole") << "12.0" << 12;
    QTest::newRow("12.5 is not") << "12.5" << 0;
    QTest::newRow("int max") << "2147483647" << 2147483647;
    QTest::newRow("past int max") << "2147483648" << 0;
    QTest::newRow("int min") << "-2147483648" << int(-2147483647 - 1);
    QTest::newRow("negative") << "-3" << -3;
    QTest::newRow("string of digits") << "\"137\"" << 0;
    QTest::newRow("true") << "true" << 0;
    QTest::newRow("null") << "null" << 0;
    QTest::newRow("object") << "{}" << 0;
}

void tst_DAppPackModel::integerMembers()
{
    QFETCH(QString, value);
    const TAppPackInfo info = loaded(QStringLiteral(R"({"install":{"filesTotalCount":%1}})").arg(value));
    QTEST(info.install.filesTotalCount, "expected");
}

void tst_DAppPackModel::sections_data()
{
    QTest::addColumn<QString>("json");
    QTest::addColumn<QString>("nameEng");
    QTest::addColumn<QString>("dir");

    QTest::newRow("section not an object: number")
        << R"({"base":5,"install":{"dir":"d"}})" << "" << "d";
    QTest::newRow("section not an object: array")
        << R"({"base":[{"nameEng":"Demo"}],"install":{"dir":"d"}})" << "" << "d";
    QTest::newRow("BASE then base: only base survives")
        << R"({"BASE":{"nameEng":"Upper"},"base":{"version":"1"},"install":{"dir":"d"}})" << "" << "d";
    QTest::newRow("base then Base: whole section replaced")
        << R"({"base":{"nameEng":"lower"},"Base":{"nameEng":"Mixed"}})" << "lower" << "";
}

void tst_DAppPackModel::sections()
{
    QFETCH(QString, json);
    const TAppPackInfo info = loaded(json);
    QTEST(QString::fromStdString(info.base.nameEng), "nameEng");
    QTEST(QString::fromStdString(info.install.dir), "dir");
}

void tst_DAppPackModel::textLeftUnchanged_data()
{
    QTest::addColumn<QString>("json");

    QTest::newRow("array at the top level") << R"([{"base":{"nameEng":"X"}}])";
    QTest::newRow("not JSON") << "base: nameEng";
    QTest::newRow("whitespace only") << " \n\t ";
    QTest::newRow("empty object") << "{}";
    QTest::newRow("NUL inside the object")
        << QStringLiteral(R"({"base":{"nameEng":"X"})") + QChar(0) + QStringLiteral("}");
    QTest::newRow("cut short") << R"({"base":{"nameEng":"X")";
}

// The record is not cleared first: a text it cannot use leaves what was there.
void tst_DAppPackModel::textLeftUnchanged()
{
    QFETCH(QString, json);
    TAppPackInfo info;
    info.base.nameEng = "Before";
    info.install.filesTotalCount = 9;
    info.fromJsonString(json);
    QCOMPARE(info.base.nameEng, std::string("Before"));
    QCOMPARE(info.install.filesTotalCount, 9);
}

void tst_DAppPackModel::roundTrip_data()
{
    QTest::addColumn<bool>("filled");
    QTest::newRow("defaults") << false;
    QTest::newRow("every member set") << true;
}

void tst_DAppPackModel::roundTrip()
{
    QFETCH(bool, filled);
    TAppPackInfo original;
    if (filled) {
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
    }
    const TAppPackInfo copy = loaded(original.toJsonString());
    QVERIFY(copy == original);
    QCOMPARE(copy.toJsonObject(), original.toJsonObject());
    if (filled)
        QVERIFY(copy != TAppPackInfo());
}

QTEST_GUILESS_MAIN(tst_DAppPackModel)
#include "tst_dapppackmodel.moc"
