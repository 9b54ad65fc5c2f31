#include "mainwindow.h"
#include "testsupport.h"

#include <QDateTime>
#include <QDir>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

using TestSupport::readFile;
using TestSupport::writeFile;

class tst_DesktopFile : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void rewritesLines_data();
    void rewritesLines();
    void cutsMainExePath_data();
    void cutsMainExePath();
    void newNameBesideExistingEntry();
    void keepsEntryOfExistingDirectory();
    void refusesTakenNewName();
    void missingSourceWritesNothing_data();
    void missingSourceWritesNothing();
    void unopenableDestinationFails();
    void calcFieldCodesPos_data();
    void calcFieldCodesPos();

private:
    void setManifestFiles(const QString& strLocalDir, const QString& strMainExePath);

    QTemporaryDir tmpDir;
    MainWindow window;
};

void tst_DesktopFile::init()
{
    QVERIFY(tmpDir.isValid());
    QDir(tmpDir.path()).removeRecursively();
    QVERIFY(QDir().mkpath(tmpDir.path() + "/apps"));
    DTavelinGuiConfig& config = DTavelinGuiConfig::getInstance();
    config.setTargetDesktopFilePath(QString());
    config.setFlagOfOverrideTargetDir(false);
    config.setTargetInstallDir(QStringLiteral("/opt/demo"));
    setManifestFiles(QString(), QString());
}

void tst_DesktopFile::setManifestFiles(const QString& strLocalDir, const QString& strMainExePath)
{
    TAppFiles& files = DTavelinGuiConfig::getInstance().getAppPackInfo()->files;
    files.localDir = strLocalDir.toStdString();
    files.mainExePath = strMainExePath.toStdString();
}

void tst_DesktopFile::rewritesLines_data()
{
    QTest::addColumn<QString>("localDir");
    QTest::addColumn<QString>("mainExePath");
    QTest::addColumn<QString>("location");
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<QByteArray>("expected");

    QTest::newRow("worked example 1: no main program")
        << QString() << QString() << "/opt/demo"
        << QByteArray("[Desktop Entry]\nName=Demo\nExec=bin/demo --new %U\nExec=/usr/bin/demo\n   Icon=demo   \n\n")
        << QByteArray("[Desktop Entry]\nName=Demo\nExec=/opt/demo/bin/demo --new %U\nExec=/opt/demo//usr/bin/demo\n"
                      "Icon=demo\n\n");
    QTest::newRow("CR LF line ends")
        << QString() << QString() << "/opt/demo" << QByteArray("[Desktop Entry]\r\nExec=demo %f\r\n\r\nIcon=x\r\n")
        << QByteArray("[Desktop Entry]\nExec=/opt/demo/demo %f\n\nIcon=x\n");
    QTest::newRow("no line end on the last line")
        << QString() << QString() << "/opt/demo" << QByteArray("Name=Demo\nExec=demo")
        << QByteArray("Name=Demo\nExec=/opt/demo/demo\n");
    QTest::newRow("only Exec= lines are rewritten")
        << QString() << QString() << "/opt/demo"
        << QByteArray("Exec =demo\nexec=demo\nTryExec=demo\nPath=/srv\n Icon=demo\n")
        << QByteArray("Exec =demo\nexec=demo\nTryExec=demo\nPath=/srv\nIcon=demo\n");
    QTest::newRow("action groups too, second form")
        << "/build/demo/" << "/build/demo/bin/demo" << "/opt/demo"
        << QByteArray("[Desktop Entry]\nExec=demo %F\n[Desktop Action New]\nName=New\nExec=demo --new\n")
        << QByteArray("[Desktop Entry]\nExec=\"/opt/demo/bin/demo\" %F\n[Desktop Action New]\nName=New\n"
                      "Exec=\"/opt/demo/bin/demo\" \n");
    QTest::newRow("empty Exec value, first form")
        << QString() << QString() << "/opt/demo" << QByteArray("Exec=\n") << QByteArray("Exec=/opt/demo/\n");
    QTest::newRow("empty Exec value, second form")
        << "/build/demo/" << "/build/demo/bin/demo" << "/opt/demo" << QByteArray("Exec=   \n")
        << QByteArray("Exec=\"/opt/demo/bin/demo\" \n");
    QTest::newRow("percent inside the old path starts the tail")
        << "/build/demo/" << "/build/demo/bin/demo" << "/opt/demo" << QByteArray("Exec=/opt/100%/demo %U\n")
        << QByteArray("Exec=\"/opt/demo/bin/demo\" %/demo %U\n");
    QTest::newRow("location with a trailing slash, used as typed")
        << QString() << QString() << "/opt/demo/" << QByteArray("Exec=bin/demo\n")
        << QByteArray("Exec=/opt/demo//bin/demo\n");
    QTest::newRow("location with percent signs and blanks")
        << "/b/" << "/b/bin/demo" << "/opt/%1 100%/x" << QByteArray("Exec=demo %u\n")
        << QByteArray("Exec=\"/opt/%1 100%/x/bin/demo\" %u\n");
}

void tst_DesktopFile::rewritesLines()
{
    QFETCH(QString, localDir);
    QFETCH(QString, mainExePath);
    QFETCH(QString, location);
    QFETCH(QByteArray, input);
    QFETCH(QByteArray, expected);
    setManifestFiles(localDir, mainExePath);
    DTavelinGuiConfig::getInstance().setTargetInstallDir(location);
    const QString strSrc = tmpDir.path() + "/src.desktop";
    const QString strDst = tmpDir.path() + "/apps/demo.desktop";
    QVERIFY(writeFile(strSrc, input));

    QVERIFY(window.copyDesktopFile(strSrc, strDst));
    QCOMPARE(readFile(strDst), expected);
    QCOMPARE(DTavelinGuiConfig::getInstance().getTargetDesktopFilePath(), strDst);
}

void tst_DesktopFile::cutsMainExePath_data()
{
    QTest::addColumn<QString>("localDir");
    QTest::addColumn<QString>("mainExePath");
    QTest::addColumn<QByteArray>("expected");
    QTest::newRow("localDir without trailing slash leaves a doubled slash")
        << "/build/demo" << "/build/demo/bin/demo" << QByteArray("Exec=\"/opt/demo//bin/demo\" %U\n");
    QTest::newRow("localDir with trailing slash")
        << "/build/demo/" << "/build/demo/bin/demo" << QByteArray("Exec=\"/opt/demo/bin/demo\" %U\n");
    QTest::newRow("empty localDir") << QString() << "bin/demo" << QByteArray("Exec=\"/opt/demo/bin/demo\" %U\n");
    QTest::newRow("cut by length, not by content")
        << "src" << "bin/demo" << QByteArray("Exec=\"/opt/demo//demo\" %U\n");
    QTest::newRow("localDir as long as mainExePath")
        << "12345678" << "bin/demo" << QByteArray("Exec=\"/opt/demo/\" %U\n");
    QTest::newRow("localDir longer than mainExePath")
        << "/a/much/longer/dir" << "bin/demo" << QByteArray("Exec=\"/opt/demo/bin/demo\" %U\n");
}

void tst_DesktopFile::cutsMainExePath()
{
    QFETCH(QString, localDir);
    QFETCH(QString, mainExePath);
    QFETCH(QByteArray, expected);
    setManifestFiles(localDir, mainExePath);
    const QString strSrc = tmpDir.path() + "/src.desktop";
    const QString strDst = tmpDir.path() + "/apps/demo.desktop";
    QVERIFY(writeFile(strSrc, "Exec=old/path --opt %U\n"));
    QVERIFY(window.copyDesktopFile(strSrc, strDst));
    QCOMPARE(readFile(strDst), expected);
}

// Worked example 2: the location is new and an entry of that name exists.
void tst_DesktopFile::newNameBesideExistingEntry()
{
    setManifestFiles("/build/demo", "/build/demo/bin/demo");
    DTavelinGuiConfig::getInstance().setTargetInstallDir("/opt/demo 2");
    const QString strSrc = tmpDir.path() + "/src.desktop";
    const QString strDst = tmpDir.path() + "/apps/demo.desktop";
    const QByteArray baOld("[Desktop Entry]\nName=Old\nExec=old\n");
    QVERIFY(writeFile(strDst, baOld));
    QVERIFY(writeFile(strSrc, "Name=Demo\nName[zh_CN]=演示\nGenericName=Tool\nExec=/usr/bin/demo --new %U\n"
                              "Exec=demo \"%f\"\nExec=\"%f\"\nExec=演示 --new %U\nExec=demo --new\nTryExec=demo\n"));

    QVERIFY(window.copyDesktopFile(strSrc, strDst));

    QCOMPARE(readFile(strDst), baOld);
    const QStringList entries = QDir(tmpDir.path() + "/apps").entryList(QDir::Files, QDir::Name);
    QCOMPARE(entries.size(), 2);
    const QString strNewName = entries.at(0) == "demo.desktop" ? entries.at(1) : entries.at(0);
    QVERIFY2(QRegularExpression("^demo-\\d{8}-\\d{6}\\.desktop$").match(strNewName).hasMatch(), qPrintable(strNewName));
    const QString strNewPath = QDir(tmpDir.path() + "/apps").canonicalPath() + "/" + strNewName;
    QCOMPARE(DTavelinGuiConfig::getInstance().getTargetDesktopFilePath(), strNewPath);
    QCOMPARE(readFile(strNewPath),
             QByteArray("Name=Demo(/opt/demo 2)\nName[zh_CN]=演示(/opt/demo 2)\nGenericName=Tool\n"
                        "Exec=\"/opt/demo 2//bin/demo\" %U\nExec=\"/opt/demo 2//bin/demo\" \"%f\"\n"
                        "Exec=\"/opt/demo 2//bin/demo\" \"%f\"\nExec=\"/opt/demo 2//bin/demo\" %U\n"
                        "Exec=\"/opt/demo 2//bin/demo\" \nTryExec=demo\n"));
}

void tst_DesktopFile::keepsEntryOfExistingDirectory()
{
    DTavelinGuiConfig& config = DTavelinGuiConfig::getInstance();
    config.setFlagOfOverrideTargetDir(true);
    config.setTargetDesktopFilePath("/earlier/path.desktop");
    const QString strSrc = tmpDir.path() + "/src.desktop";
    const QString strDst = tmpDir.path() + "/apps/demo.desktop";
    QVERIFY(writeFile(strSrc, "Exec=new\n"));
    QVERIFY(writeFile(strDst, "Exec=old\r\n"));

    QVERIFY(window.copyDesktopFile(strSrc, strDst));
    QCOMPARE(readFile(strDst), QByteArray("Exec=old\r\n"));
    QCOMPARE(QDir(tmpDir.path() + "/apps").entryList(QDir::Files).size(), 1);
    QCOMPARE(config.getTargetDesktopFilePath(), QString("/earlier/path.desktop"));
}

void tst_DesktopFile::refusesTakenNewName()
{
    DTavelinGuiConfig& config = DTavelinGuiConfig::getInstance();
    config.setTargetDesktopFilePath("/earlier/path.desktop");
    const QString strSrc = tmpDir.path() + "/src.desktop";
    const QString strDst = tmpDir.path() + "/apps/demo.desktop";
    QVERIFY(writeFile(strSrc, "Exec=new\n"));
    QVERIFY(writeFile(strDst, "Exec=old\n"));
    // The names of this second and the next few, so the clock cannot slip past them.
    const QDateTime now = QDateTime::currentDateTime();
    for (int i = 0; i < 5; ++i) {
        const QString strStamp = now.addSecs(i).toString("yyyyMMdd-HHmmss");
        QVERIFY(writeFile(tmpDir.path() + "/apps/demo-" + strStamp + ".desktop", "taken\n"));
    }

    QVERIFY(!window.copyDesktopFile(strSrc, strDst));
    QCOMPARE(config.getTargetDesktopFilePath(), QString("/earlier/path.desktop"));
    QCOMPARE(readFile(strDst), QByteArray("Exec=old\n"));
    QCOMPARE(readFile(tmpDir.path() + "/apps/demo-" + now.toString("yyyyMMdd-HHmmss") + ".desktop"),
             QByteArray("taken\n"));
}

void tst_DesktopFile::missingSourceWritesNothing_data()
{
    QTest::addColumn<QString>("srcName");
    QTest::addColumn<QString>("dstName");
    QTest::newRow("source missing") << "missing.desktop" << "apps/demo.desktop";
    // An empty install.desktopFile leaves both paths naming directories.
    QTest::newRow("empty desktopFile") << "" << "apps/";
}

void tst_DesktopFile::missingSourceWritesNothing()
{
    QFETCH(QString, srcName);
    QFETCH(QString, dstName);
    QVERIFY(QDir().mkpath(tmpDir.path() + "/src"));
    const QString strDst = tmpDir.path() + "/" + dstName;
    QVERIFY(window.copyDesktopFile(tmpDir.path() + "/src/" + srcName, strDst));
    QVERIFY(QDir(tmpDir.path() + "/apps").entryList(QDir::Files).isEmpty());
    QCOMPARE(DTavelinGuiConfig::getInstance().getTargetDesktopFilePath(), strDst);
}

void tst_DesktopFile::unopenableDestinationFails()
{
    const QString strSrc = tmpDir.path() + "/src.desktop";
    const QString strDst = tmpDir.path() + "/no-such-dir/demo.desktop";
    QVERIFY(writeFile(strSrc, "Exec=demo\n"));
    QVERIFY(!window.copyDesktopFile(strSrc, strDst));
    QVERIFY(!QFileInfo::exists(strDst));
    QCOMPARE(DTavelinGuiConfig::getInstance().getTargetDesktopFilePath(), strDst);
}

void tst_DesktopFile::calcFieldCodesPos_data()
{
    QTest::addColumn<QString>("value");
    QTest::addColumn<int>("position");
    QTest::newRow("empty") << "" << -1;
    QTest::newRow("no field code") << "demo --new" << -1;
    QTest::newRow("plain field code") << "demo --new %U" << 11;
    QTest::newRow("quoted field code starts at the quote") << "demo \"%f\"" << 5;
    QTest::newRow("quote and percent first") << "\"%f\"" << 0;
    QTest::newRow("any percent stops the scan") << "a%b" << 1;
    QTest::newRow("percent inside a path") << "/opt/100%/demo %U" << 8;
    QTest::newRow("quote not followed by percent") << "\"demo\" %u" << 7;
    QTest::newRow("quote at the very end") << "demo\"" << -1;
    QTest::newRow("characters, not bytes, before it") << "演示 --new %U" << 9;
}

void tst_DesktopFile::calcFieldCodesPos()
{
    QFETCH(QString, value);
    QFETCH(int, position);
    QCOMPARE(MainWindow::calcFieldCodesPos(value), position);
}

QTEST_MAIN(tst_DesktopFile)
#include "tst_desktopfile.moc"
