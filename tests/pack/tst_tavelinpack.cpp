#include "DAppPackModel.h"
#include "DPacker.h"
#include "JsonUtil.h"
#include "mainwindow.h"
#include "testsupport.h"

#include <QCryptographicHash>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/stat.h>
#include <unistd.h>

namespace {

const QByteArray g_validDesktop = "[Desktop Entry]\nType=Application\nName=Demo\nExec=bin/demo %U\nIcon=demo\n";

class DCopyProbe : public MainWindow
{
public:
    // The count the wizard's own copy reaches in a fresh location; -1 when it fails.
    int countCopy(const QString& strSrc, const QString& strDst)
    {
        std::atomic<int> counter{0};
        flagOfInstallState = installing;
        QDir().mkpath(strDst);
        return copyDirectory(strSrc, strDst, true, counter) ? counter.load() : -1;
    }
};

} // namespace

class tst_TavelinPack : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        tempDir.reset(new QTemporaryDir);
        QVERIFY(tempDir->isValid());
        qputenv("HOME", tempDir->path().toLocal8Bit());
        if (QStandardPaths::findExecutable(QStringLiteral("desktop-file-validate")).isEmpty())
            QSKIP("desktop-file-validate is not installed (Debian package desktop-file-utils)");
    }

    void countFollowsCopyRules_data()
    {
        QTest::addColumn<QStringList>("tree");
        QTest::addColumn<int>("expected");
        QTest::addColumn<QString>("warning"); // one of the warnings; empty: none
        QTest::newRow("files and nested dirs") << QStringList{"a", "bin/demo", "share/x/y/z.txt", "empty/"} << 8 << "";
        QTest::newRow("hidden entries at every depth") << QStringList{"a", ".hidden", ".dir/inside", "bin/.rc"} << 2
                                                       << "hidden entry bin/.rc will not be installed";
        QTest::newRow("link to a file counts as a file") << QStringList{"a", "b->a"} << 2 << "";
        QTest::newRow("link to a dir is descended") << QStringList{"lib/x.so", "lib/y.so", "lib64->lib"} << 6 << "";
        QTest::newRow("link out of the tree is followed")
            << QStringList{"../outside/o1", "../outside/o2", "ext->../outside"} << 3 << "";
        QTest::newRow("dangling link left out") << QStringList{"a", "gone->nowhere"} << 1
                                                << "dangling link gone will not be installed";
        QTest::newRow("fifo left out") << QStringList{"a", "pipe|"} << 1 << "special file pipe will not be installed";
    }

    void countFollowsCopyRules()
    {
        QFETCH(QStringList, tree);
        QFETCH(int, expected);
        QFETCH(QString, warning);
        const QString strRoot = tempDir->filePath(QStringLiteral("tree"));
        QVERIFY(TestSupport::makeTree(strRoot, tree));
        TPackTreeScan scan;
        QVERIFY2(DPackTree::scan(strRoot, scan), qPrintable(scan.error));
        QCOMPARE(scan.count(), expected);
        QVERIFY2(warning.isEmpty() ? scan.warnings.isEmpty() : scan.warnings.contains(warning), qPrintable(scan.warnings.join('\n')));

        // The wizard's own copy counts the same, from the source and from the payload.
        QString strError;
        const QString strPayload = tempDir->filePath(QStringLiteral("payload"));
        QVERIFY2(DPackTree::copy(strRoot, scan, strPayload, strError), qPrintable(strError));
        DCopyProbe probe;
        QCOMPARE(probe.countCopy(strPayload, tempDir->filePath(QStringLiteral("installed"))), expected);
        QCOMPARE(probe.countCopy(strRoot, tempDir->filePath(QStringLiteral("installed-from-source"))), expected);
    }

    void refusesAndLeavesNothing_data()
    {
        QTest::addColumn<QString>("problem");
        QTest::addColumn<QString>("message");
        QTest::newRow("desktop entry without Type") << "desktop" << "rejected by desktop-file-validate";
        QTest::newRow("desktop entry is a directory") << "desktop-dir" << "is not a file";
        QTest::newRow("no work directory in TMPDIR") << "tmpdir" << "cannot create a work directory in";
        QTest::newRow("icon is not an image") << "icon" << "does not load as an image";
        QTest::newRow("main exe outside local dir") << "exe-prefix" << "does not begin with the local dir";
        QTest::newRow("main exe not in tree") << "exe-missing" << "names no installed file";
        QTest::newRow("main exe is a dir") << "exe-dir" << "names no installed file";
        QTest::newRow("link loops to an ancestor") << "loop" << "loops back to";
        QTest::newRow("tree of hidden files only") << "empty" << "is empty";
        QTest::newRow("tree missing") << "no-tree" << "is not a directory";
        QTest::newRow("output not empty") << "output" << "is not empty";
        QTest::newRow("AppImage there already") << "appimage" << "exists already";
        QTest::newRow("AppImage's directory is a file") << "appimage-dir" << "cannot create the directory";
        QTest::newRow("mksquashfs fails half-way") << "mksquashfs" << "mksquashfs failed";
        QTest::newRow("wizard bundle missing") << "no-bundle" << "the wizard bundle";
        QTest::newRow("squasher not an executable") << "squasher" << "the squasher";
        QTest::newRow("wizard for another machine than the runtime") << "other-wizard" << ", the runtime ";
        QTest::newRow("machine we make no AppImage for") << "machine" << R"(no AppImage for the machine "riscv64")";
        QTest::newRow("wizard asks more than the floor") << "host-wizard" << "newer than the floor's GLIBC_2.31";
        QTest::newRow("zsync URL names another file")
            << "zsync-other"
            << R"(the update information names "Other.AppImage.zsync", but the AppImage is "Demo.AppImage": its .zsync must be "Demo.AppImage.zsync")";
        QTest::newRow("release pattern misses the AppImage's .zsync")
            << "gh-other" << R"(names "Demo-*-aarch64.AppImage.zsync", but the AppImage is "Demo.AppImage": its .zsync "Demo.AppImage.zsync" must match)";
        QTest::newRow("release form without a pattern") << "gh-short" << "is not gh-releases-zsync|user|repo|tag|pattern";
        QTest::newRow(".zsync there already") << "zsync-had" << "Demo.AppImage.zsync exists already";
        QTest::newRow("zsyncmake fails half-way") << "zsyncmake" << "zsyncmake failed";
    }

    void refusesAndLeavesNothing()
    {
        QFETCH(QString, problem);
        QFETCH(QString, message);
        TPackRequest request = makeRequest(tempDir->path());
        const QString strOut = request.outputDir;
        request.outputDir = strOut + QStringLiteral("/payload");
        request.appImage = strOut + QStringLiteral("/new/Demo.AppImage");
        const QString strFake = tempDir->filePath(QStringLiteral("bin/mksquashfs"));
        QStringList tree{"bin/demo", "share/readme"};
        QStringList had; // what the packager has in the output location beforehand
        if (problem == QLatin1String("desktop"))
            TestSupport::writeFile(request.desktopEntry, "[Desktop Entry]\nName=Demo\nExec=demo\n");
        else if (problem == QLatin1String("desktop-dir"))
            QVERIFY(QFile::remove(request.desktopEntry) && QDir().mkpath(request.desktopEntry));
        else if (problem == QLatin1String("tmpdir"))
            qputenv("TMPDIR", request.icon.toLocal8Bit()); // a file: nothing can be made in it
        else if (problem == QLatin1String("icon"))
            TestSupport::writeFile(request.icon, "not a picture");
        else if (problem == QLatin1String("exe-prefix"))
            request.mainExePath = QStringLiteral("/elsewhere/bin/demo");
        else if (problem == QLatin1String("exe-missing"))
            request.mainExePath = QStringLiteral("/build/demo/bin/other");
        else if (problem == QLatin1String("exe-dir"))
            request.mainExePath = QStringLiteral("/build/demo/bin");
        else if (problem == QLatin1String("loop"))
            tree << QStringLiteral("share/up->..");
        else if (problem == QLatin1String("empty"))
            tree = QStringList{".hidden", ".config/x"}, request.mainExePath.clear();
        else if (problem == QLatin1String("output"))
            had << QStringLiteral("payload/") << QStringLiteral("payload/keep.txt");
        else if (problem == QLatin1String("appimage"))
            had << QStringLiteral("new/") << QStringLiteral("new/Demo.AppImage");
        else if (problem == QLatin1String("appimage-dir"))
            had << QStringLiteral("new");
        else if (problem == QLatin1String("machine"))
            request.machine = QStringLiteral("riscv64");
        else if (problem == QLatin1String("mksquashfs"))
            QVERIFY(TestSupport::writeFile(strFake, "#!/bin/sh\necho full >&2\nexit 1\n") && ::chmod(qPrintable(strFake), 0755) == 0);
        else if (problem == QLatin1String("squasher"))
            QVERIFY(TestSupport::writeFile(strFake, "#!/bin/sh\n") && ::chmod(qPrintable(strFake), 0644) == 0);
        else if (problem == QLatin1String("zsync-other"))
            request.updateInformation = QStringLiteral("zsync|https://example.org/dl/Other.AppImage.zsync");
        else if (problem == QLatin1String("gh-other"))
            request.updateInformation = QStringLiteral("gh-releases-zsync|sample|demo|latest|Demo-*-aarch64.AppImage.zsync");
        else if (problem == QLatin1String("gh-short"))
            request.updateInformation = QStringLiteral("gh-releases-zsync|sample|demo|Demo*.AppImage.zsync");
        else if (problem == QLatin1String("zsync-had"))
            had << QStringLiteral("new/") << QStringLiteral("new/Demo.AppImage.zsync");
        else if (problem == QLatin1String("zsyncmake")) {
            // Half a .zsync written, then the failure.
            const QString strFakeZsync = tempDir->filePath(QStringLiteral("bin/zsyncmake"));
            QVERIFY(TestSupport::writeFile(strFakeZsync, "#!/bin/sh\nwhile [ $# -gt 1 ]; do [ \"$1\" != -o ] || echo half > \"$2\"; "
                                                         "shift; done\necho full >&2\nexit 1\n")
                    && ::chmod(qPrintable(strFakeZsync), 0755) == 0);
        }
        if (problem.startsWith(QLatin1String("zsync")) && request.updateInformation.isEmpty())
            request.updateInformation = QStringLiteral("zsync|https://example.org/dl/Demo.AppImage.zsync");
        // A stand-in bundle whose wizard is a script passes the floor; this
        // build's own wizard, made on this newer host, does not.
        const QString strWizard = tempDir->filePath(QStringLiteral("bundle/usr/bin/tavelin-gui"));
        if (problem == QLatin1String("host-wizard"))
            QVERIFY(QDir().mkpath(QFileInfo(strWizard).path()) && QFile::copy(QStringLiteral(TAVELIN_GUI_BINARY), strWizard));
    #ifdef TAVELIN_RUNTIME_BINARY
        else if (problem == QLatin1String("other-wizard"))
            QVERIFY(copyAsOtherMachine(QStringLiteral(TAVELIN_RUNTIME_BINARY), strWizard));
    #endif
        else if (problem != QLatin1String("no-bundle"))
            QVERIFY(TestSupport::writeFile(strWizard, "#!/bin/sh\n") && ::chmod(qPrintable(strWizard), 0755) == 0);
        QVERIFY(TestSupport::writeFile(tempDir->filePath(QStringLiteral("bundle/.tavelin-preload")), ""));
    #ifndef TAVELIN_RUNTIME_BINARY
        if (problem == QLatin1String("mksquashfs") || problem == QLatin1String("host-wizard")
            || problem == QLatin1String("other-wizard") || problem == QLatin1String("zsyncmake"))
            QSKIP("the AppImage runtime is not built (Debian package libsquashfuse-dev)");
    #endif
        if (problem != QLatin1String("no-tree"))
            QVERIFY(TestSupport::makeTree(request.appTree, tree));
        if (!had.isEmpty())
            QVERIFY(TestSupport::writeFile(strOut + QLatin1Char('/') + had.last(), "mine"));

        QScopedPointer<QProcess> process(runPacker(request));
        qunsetenv("TMPDIR");
        QCOMPARE(process->exitCode(), 1);
        const QString strStderr = QString::fromLocal8Bit(process->readAllStandardError());
        QVERIFY2(strStderr.contains(QStringLiteral("tavelin-pack: error: ")) && strStderr.contains(message),
                 qPrintable(strStderr));
        // Only what the packager had is left, as it was.
        QCOMPARE(TestSupport::treeOf(strOut), had);
        QCOMPARE(QFileInfo::exists(strOut), !had.isEmpty());
        if (!had.isEmpty())
            QCOMPARE(TestSupport::readFile(strOut + QLatin1Char('/') + had.last()), QByteArray("mine"));
    }

    void writesZsyncBeside_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("update");
        QTest::addColumn<QString>("url"); // the .zsync's URL header; empty: no .zsync
        QTest::newRow("zsync URL names the AppImage's .zsync")
            << "Demo.AppImage" << "zsync|https://example.org/dl/Demo.AppImage.zsync" << "Demo.AppImage";
        QTest::newRow("zsync URL with a query and a fragment")
            << "Demo.AppImage" << "zsync|https://example.org/dl/Demo.AppImage.zsync?mirror=2#latest" << "Demo.AppImage";
        QTest::newRow("name with a blank, percent-encoded in both URLs")
            << "Demo 2.AppImage" << "zsync|https://example.org/dl/Demo%202.AppImage.zsync" << "Demo%202.AppImage";
        QTest::newRow("release pattern matches the AppImage's .zsync")
            << "Demo-2.3.1-x86_64.AppImage" << "gh-releases-zsync|sample|demo|latest|Demo-*x86_64.AppImage.zsync"
            << "Demo-2.3.1-x86_64.AppImage";
        QTest::newRow("other form embedded as it is") << "Demo.AppImage" << "pling-v1-zsync|1234" << "";
    }

    void writesZsyncBeside()
    {
        QFETCH(QString, name);
        QFETCH(QString, update);
        QFETCH(QString, url);
    #ifndef TAVELIN_RUNTIME_BINARY
        QSKIP("the AppImage runtime is not built (Debian package libsquashfuse-dev)");
    #endif
        if (QStandardPaths::findExecutable(QStringLiteral("zsyncmake")).isEmpty())
            QSKIP("zsyncmake is not installed (Debian package zsync)");
        TPackRequest request = makeRequest(tempDir->path());
        request.outputDir = tempDir->filePath(QStringLiteral("payload"));
        request.appImage = tempDir->filePath(QStringLiteral("new/") + name);
        request.updateInformation = update;
        const QString strWizard = tempDir->filePath(QStringLiteral("bundle/usr/bin/tavelin-gui"));
        QVERIFY(TestSupport::writeFile(strWizard, "#!/bin/sh\n") && ::chmod(qPrintable(strWizard), 0755) == 0);
        QVERIFY(TestSupport::writeFile(tempDir->filePath(QStringLiteral("bundle/.tavelin-preload")), ""));
        QVERIFY(TestSupport::makeTree(request.appTree, {"bin/demo"}));

        QScopedPointer<QProcess> process(runPacker(request));
        QVERIFY2(process->exitCode() == 0, process->readAllStandardError().constData());
        const QString strZsync = request.appImage + QStringLiteral(".zsync");
        const QStringList written = url.isEmpty() ? QStringList{name} : QStringList{name, name + QStringLiteral(".zsync")};
        QCOMPARE(TestSupport::treeOf(tempDir->filePath(QStringLiteral("new"))), written);
        if (url.isEmpty())
            return;
        // The .zsync describes the AppImage as placed: its name, its bytes, the pinned time stamp.
        const QByteArray baAppImage = TestSupport::readFile(request.appImage);
        const QByteArray baHeader = TestSupport::readFile(strZsync).split('\n').mid(0, 9).join('\n');
        const qint64 epoch = qEnvironmentVariable("SOURCE_DATE_EPOCH", QStringLiteral("946684800")).toLongLong();
        const QString strTime = QLocale::c().toString(QDateTime::fromSecsSinceEpoch(epoch, Qt::UTC),
                                                      QStringLiteral("ddd, dd MMM yyyy hh:mm:ss +0000"));
        for (const QString& strLine :
             {QStringLiteral("Filename: ") + name, QStringLiteral("MTime: ") + strTime, QStringLiteral("URL: ") + url,
              QStringLiteral("Length: %1").arg(baAppImage.size()),
              QStringLiteral("SHA-1: ") + QCryptographicHash::hash(baAppImage, QCryptographicHash::Sha1).toHex()})
            QVERIFY2(baHeader.contains('\n' + strLine.toUtf8() + '\n'), baHeader.constData());
    }

    void refusesBadSettings_data()
    {
        QTest::addColumn<QByteArray>("config");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("message");
        const QByteArray baNeeded = R"({"app": "t", "desktop": "d", "icon": "i", "name-eng": "N", "output": "o")";
        QTest::newRow("unknown key") << baNeeded + R"(, "colour": "red"})" << 1 << R"(/pkg.json: unknown key "colour")";
        QTest::newRow("wrong type") << baNeeded + R"(, "dir": 7})" << 1 << R"(/pkg.json: "dir" must be a string, not a number)";
        QTest::newRow("missing required setting") << QByteArray(R"({"app": "t", "icon": "i", "name-eng": "N", "output": "o"})")
                                                  << 1 << R"(/pkg.json: missing "desktop")";
        QTest::newRow("missing output") << QByteArray(R"({"app": "t", "desktop": "d", "icon": "i", "name-eng": "N"})") << 1
                                        << R"(/pkg.json: missing "output" or "appimage")";
        QTest::newRow("unreadable file") << QByteArray() << 1 << "/pkg.json: cannot be read";
        QTest::newRow("not JSON") << QByteArray(R"({"app": "t",)") << 1 << "/pkg.json: is not JSON";
        QTest::newRow("not an object") << QByteArray(R"(["app"])") << 1 << "/pkg.json: holds no JSON object";
        QTest::newRow("machine we make no AppImage for") << baNeeded + R"(, "arch": "mips64"})" << 1
                                                         << R"(no AppImage for the machine "mips64": tavelin-pack packs for x86_64 and aarch64)";
        QTest::newRow("no file, an option missing") << QByteArray("--app t --output o") << 2 << "missing --desktop";
        QTest::newRow("an argument left over") << QByteArray("--app t --output o extra") << 2 << "unexpected argument extra";
        QTest::newRow("--verify with a setting") << QByteArray("--verify f --app t") << 2 << "--verify takes no other option";
        QTest::newRow("--payload-layout with a setting") << QByteArray("--payload-layout --app t") << 2
                                                         << "--payload-layout takes no other option";
    }

    void refusesBadSettings()
    {
        QFETCH(QByteArray, config);
        QFETCH(int, status);
        QFETCH(QString, message);
        const QString strConfig = tempDir->filePath(QStringLiteral("pkg.json"));
        QStringList arguments{"--config", strConfig};
        if (config.startsWith("--"))
            arguments = QString::fromUtf8(config).split(QLatin1Char(' '));
        else if (!config.isNull())
            QVERIFY(TestSupport::writeFile(strConfig, config));
        QScopedPointer<QProcess> process(runPack(arguments));
        QCOMPARE(process->exitCode(), status);
        const QString strStderr = QString::fromLocal8Bit(process->readAllStandardError());
        QVERIFY2(strStderr.startsWith(QStringLiteral("tavelin-pack: error: ")) && strStderr.contains(message),
                 qPrintable(strStderr));
        QCOMPARE(TestSupport::treeOf(tempDir->path()), QFileInfo::exists(strConfig) ? QStringList{"pkg.json"} : QStringList());
    }

    void manifestLoadsBackEqual()
    {
        const TPackRequest request = makeRequest(tempDir->path());
        QVERIFY(TestSupport::makeTree(request.appTree, {"bin/demo", "share/readme", ".git/config"}));
        DPacker packer;
        QVERIFY2(packer.pack(request), qPrintable(packer.getError()));

        // The carried-only paths lie inside the payload, whatever the sources' places.
        TAppPackInfo expected;
        expected.fromJsonString(QString::fromUtf8(R"({"base": {"nameEng": "Demo", "nameChs": "演示", "version": "2.3.1", "publisher": "Sample Works",)"
            R"( "website": "https://example.org", "author": "作者", "email": "demo@example.org"},)"
            R"( "install": {"defaultParentDir": "/opt", "dir": "demo", "appIcon": "demo.png", "filesTotalCount": 4,)"
            R"( "desktopFile": "demo.desktop"},)"
            R"( "files": {"localDir": "/build/demo/", "mainExePath": "/build/demo/bin/demo"},)"
            R"( "appearance": {"iconPath": "soft/images/demo.png", "shortcutOnStartMenu": 1,)"
            R"( "desktopPath": "soft/desktop/share/applications/demo.desktop"},)"
            R"( "other": {"installPkgName": "demo-2.3.1"}})"));
        const QString strSoft = request.outputDir + QStringLiteral("/soft");
        TAppPackInfo loaded;
        QVERIFY(JsonUtil::initObjFromJsonFile((strSoft + QStringLiteral("/mainifest.json")).toStdString(), loaded));
        QVERIFY2(loaded == expected, qPrintable(loaded.toJsonString()));
        QCOMPARE(TestSupport::readFile(strSoft + QStringLiteral("/desktop/share/applications/demo.desktop")), g_validDesktop);
        QCOMPARE(TestSupport::readFile(strSoft + QStringLiteral("/images/demo.png")), TestSupport::readFile(request.icon));

        // The same from a description file in another directory, its paths taken
        // against that directory; the command line overrides two of its settings.
        QVERIFY(TestSupport::writeFile(tempDir->filePath(QStringLiteral("conf/pkg.json")), R"({"app": "../tree", "desktop": "../demo.desktop", "icon": "../demo.png", "name-eng": "Demo",)"
            R"( "name-chs": "演示", "app-version": "2.3.1", "publisher": "Sample Works", "website": "https://example.org",)"
            R"( "author": "作者", "email": "demo@example.org", "parent-dir": "/opt", "dir": "demo",)"
            R"( "local-dir": "/build/demo/", "main-exe": "/build/demo/bin/demo", "output": "unused"})"));
        QScopedPointer<QProcess> process(
            runPack({"--config", "conf/pkg.json", "--app-version", "9.9", "--output", "out-config"}));
        QCOMPARE(process->exitCode(), 0);
        // Warnings do not stop it: a hidden entry and a main program without its x bit.
        const QString strStderr = QString::fromLocal8Bit(process->readAllStandardError());
        QVERIFY2(strStderr.contains(QStringLiteral("tavelin-pack: warning: hidden entry .git will not be installed"))
                     && strStderr.contains(QStringLiteral("tavelin-pack: warning: main program /build/demo/bin/demo is not executable")),
                 qPrintable(strStderr));
        const QString strManifest = tempDir->filePath(QStringLiteral("out-config/soft/mainifest.json"));
        QVERIFY(JsonUtil::initObjFromJsonFile(strManifest.toStdString(), loaded));
        expected.base.version = "9.9";
        expected.other.installPkgName = "demo-9.9";
        QVERIFY2(loaded == expected, qPrintable(loaded.toJsonString()));
    }

private:
    // A static program that passes the floor, its ELF header's e_machine
    // turned from this machine's into another's (x86-64 62, AArch64 183).
    static bool copyAsOtherMachine(const QString& strFrom, const QString& strTo)
    {
        QByteArray baElf = TestSupport::readFile(strFrom);
        if (baElf.size() < 20 || !QDir().mkpath(QFileInfo(strTo).path()))
            return false;
        baElf[18] = static_cast<char>(baElf.at(18) == 62 ? 183 : 62);
        return TestSupport::writeFile(strTo, baElf) && ::chmod(qPrintable(strTo), 0755) == 0;
    }

    TPackRequest makeRequest(const QString& strBase) const
    {
        const TPackRequest request{strBase + "/tree", strBase + "/demo.desktop", strBase + "/demo.png", "Demo", "演示",
                                   "2.3.1", "Sample Works", "https://example.org", "作者", "demo@example.org", "/opt",
                                   "demo", "/build/demo/", "/build/demo/bin/demo", strBase + "/out"};
        TestSupport::writeFile(request.desktopEntry, g_validDesktop);
        QFile::copy(QStringLiteral(TAVELIN_SOURCE_DIR "/examples/demo/soft/images/tavelin-demo.png"), request.icon);
        return request;
    }

    QProcess* runPacker(const TPackRequest& request)
    {
        const QStringList machine = request.machine.isEmpty() ? QStringList() : QStringList{"--arch", request.machine};
        return runPack(machine + QStringList{"--app", request.appTree, "--desktop", request.desktopEntry, "--icon", request.icon,
                        "--name-eng", request.nameEng, "--name-chs", request.nameChs, "--app-version", request.version,
                        "--publisher", request.publisher, "--website", request.website, "--author", request.author,
                        "--email", request.email, "--parent-dir", request.defaultParentDir, "--dir", request.dir,
                        "--local-dir", request.localDir, "--main-exe", request.mainExePath,
                        "--output", request.outputDir, "--appimage", request.appImage}
                       + (request.updateInformation.isEmpty()
                              ? QStringList()
                              : QStringList{"--update-information", request.updateInformation}));
    }

    // From the temporary directory, with its bin first in PATH for stand-ins;
    // the host's mksquashfs, or a stand-in, in the toolchain's.
    QProcess* runPack(const QStringList& arguments)
    {
        auto* process = new QProcess;
        process->setWorkingDirectory(tempDir->path());
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("PATH"), tempDir->filePath(QStringLiteral("bin:")) + environment.value(QStringLiteral("PATH")));
        environment.insert(QStringLiteral("TAVELIN_WIZARD_BUNDLE"), tempDir->filePath(QStringLiteral("bundle")));
        const QString strStandIn = tempDir->filePath(QStringLiteral("bin/mksquashfs"));
        environment.insert(QStringLiteral("TAVELIN_MKSQUASHFS"), QFileInfo::exists(strStandIn)
                                                                     ? strStandIn
                                                                     : QStandardPaths::findExecutable(QStringLiteral("mksquashfs")));
        process->setProcessEnvironment(environment);
        process->start(QStringLiteral(TAVELIN_PACK_BINARY), arguments);
        process->waitForFinished(180000);
        return process;
    }

    QScopedPointer<QTemporaryDir> tempDir;
};

QTEST_MAIN(tst_TavelinPack)
#include "tst_tavelinpack.moc"
