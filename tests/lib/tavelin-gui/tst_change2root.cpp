// The switch to root, driven in the real tavelin-gui: the probe preloaded into
// it presses btnChange2Root, and a pkexec stand-in of our own stands first in
// PATH. The test process is a child subreaper, so that every process started
// on the way comes back to it and is killed and reaped after each test.

#include "testsupport.h"
#include "wizardprocess.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace TestSupport;

namespace {

// Records its arguments, one a line with "--" after them, then acts on the
// mode file: "run" runs them, "wait" exits with the code written to the
// FIFO "release", and a number exits with it.
const char kStandIn[] = R"(#!/bin/bash
dir=$TAVELIN_STANDIN_DIR
{ printf '%s\n' "$@"; printf -- '--\n'; } >> "$dir/calls"
mode=$(< "$dir/mode")
case $mode in
run) LD_PRELOAD=$TAVELIN_STANDIN_PRELOAD exec "$@" ;;
wait) read -r code < "$dir/release"; exit "$code" ;;
*) exit "$mode" ;;
esac
)";

enum EPathKind { standInFirst, noPkexec, noBash };

} // namespace

Q_DECLARE_METATYPE(EPathKind)

class TestChange2Root : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void acceptedLaunchReplacesWizard_data();
    void acceptedLaunchReplacesWizard();
    void refusedLaunchBringsWizardBack_data();
    void refusedLaunchBringsWizardBack();
    void pressWhileWaitingLaunchesNothing_data();
    void pressWhileWaitingLaunchesNothing();
    void strayChildIsNoLaunchResult();
    void blankInProgramPathSplits();

private:
    QString path(const QString& name) const { return tmp->filePath(name); }
    QString pathFor(EPathKind kind) const;
    QStringList wizardEnvironment(EPathKind kind) const;
    pid_t startWizard(EPathKind kind = standInFirst);
    void setMode(const QByteArray& mode);
    QList<QStringList> recordedCalls() const;
    bool release(const QByteArray& code) const;
    bool isMinimized(pid_t wizard) const;
    bool pressAndWaitBack(pid_t wizard);
    QList<pid_t> zombiesOf(pid_t parent) const;

    DXvfbServer xvfb;
    QScopedPointer<QTemporaryDir> tmp;
    QScopedPointer<DWizardProbe> probe;
    QByteArray baAppImage;
    QByteArray baXauthority;
    bool bXauthoritySet = true;
};

void TestChange2Root::initTestCase()
{
    if (!becomeChildSubreaper())
        QSKIP("PR_SET_CHILD_SUBREAPER is unavailable: the relaunched wizard could not be reaped");
    if (!xvfb.start())
        QSKIP("Xvfb cannot be started: the wizard's gtk3 platform theme needs a display");
}

void TestChange2Root::init()
{
    tmp.reset(new QTemporaryDir);
    QVERIFY(tmp->isValid());
    for (const char* dir : {"probe", "bin", "nopkexec", "nobash", "home", "work", "standin", "runtime"})
        QVERIFY(QDir(tmp->path()).mkpath(QLatin1String(dir)));
    QFile::setPermissions(path("runtime"), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    probe.reset(new DWizardProbe(path("probe")));

    QVERIFY(writeFile(path("bin/pkexec"), kStandIn));
    QVERIFY(QFile::setPermissions(path("bin/pkexec"), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
    // Without pkexec, bash must still be found; without bash, nothing is.
    QVERIFY(QFile::link(QStringLiteral("/bin/bash"), path("nopkexec/bash")));
    QVERIFY(QFile::link(QStringLiteral("/usr/bin/env"), path("nopkexec/env")));
    QVERIFY(mkfifo(path("standin/release").toLocal8Bit().constData(), 0600) == 0);
    setMode("126");

    // A link of our own as the AppImage, so that its path shows in the command line.
    QVERIFY(QFile::link(QStringLiteral(TAVELIN_GUI_BINARY), path("work/Demo.AppImage")));
    baAppImage = path("work/Demo.AppImage").toLocal8Bit();
    baXauthority = path("work/xauthority").toLocal8Bit();
    bXauthoritySet = true;
}

void TestChange2Root::cleanup()
{
    killOwnChildren(xvfb.pid());
    probe.reset();
    tmp.reset();
}

QString TestChange2Root::pathFor(EPathKind kind) const
{
    switch (kind) {
    case noPkexec:
        return path("nopkexec");
    case noBash:
        return path("nobash");
    case standInFirst:
        break;
    }
    return path("bin") + QStringLiteral(":/usr/local/bin:/usr/bin:/bin");
}

QStringList TestChange2Root::wizardEnvironment(EPathKind kind) const
{
    QStringList env = probe->environment();
    env << QStringLiteral("PATH=") + pathFor(kind) << QStringLiteral("HOME=") + path("home")
        << QStringLiteral("XDG_RUNTIME_DIR=") + path("runtime") << QStringLiteral("DISPLAY=") + xvfb.display()
        << QStringLiteral("QT_QPA_PLATFORM=xcb") << QStringLiteral("NO_AT_BRIDGE=1")
        << QStringLiteral("DBUS_SESSION_BUS_ADDRESS=unix:path=") + path("runtime/no-bus")
        << QStringLiteral("APPIMAGE=") + QString::fromLocal8Bit(baAppImage)
        << QStringLiteral("TAVELIN_STANDIN_DIR=") + path("standin")
        << QStringLiteral("TAVELIN_STANDIN_PRELOAD=" TAVELIN_WIZARD_PROBE);
    if (bXauthoritySet)
        env << QStringLiteral("XAUTHORITY=") + QString::fromLocal8Bit(baXauthority);
    return env;
}

pid_t TestChange2Root::startWizard(EPathKind kind)
{
    const pid_t pid = probe->start(QStringLiteral(TAVELIN_GUI_BINARY), wizardEnvironment(kind), path("work"),
                                   path("wizard.log"));
    if (pid > 0 && !probe->waitReady(pid)) {
        qWarning("wizard did not come up: %s", readFile(path("wizard.log")).constData());
        return -1;
    }
    return pid;
}

void TestChange2Root::setMode(const QByteArray& mode)
{
    QVERIFY(writeFile(path("standin/mode"), mode));
}

QList<QStringList> TestChange2Root::recordedCalls() const
{
    QList<QStringList> calls;
    QStringList current;
    for (const QString& line : QString::fromLocal8Bit(readFile(path("standin/calls"))).split(QLatin1Char('\n'))) {
        if (line == QLatin1String("--")) {
            calls.append(current);
            current.clear();
        } else if (!line.isEmpty()) {
            current.append(line);
        }
    }
    return calls;
}

bool TestChange2Root::release(const QByteArray& code) const
{
    const QByteArray baFifo = path("standin/release").toLocal8Bit();
    int fd = -1;
    // The stand-in opens the FIFO only after it has recorded its call.
    if (!QTest::qWaitFor([&] { return (fd = open(baFifo.constData(), O_WRONLY | O_NONBLOCK)) >= 0; }, 20000))
        return false;
    const QByteArray baLine = code + '\n';
    const bool bWritten = write(fd, baLine.constData(), static_cast<size_t>(baLine.size())) == baLine.size();
    close(fd);
    return bWritten;
}

bool TestChange2Root::isMinimized(pid_t wizard) const
{
    return probe->send(wizard, "state") == "minimized=1";
}

// Minimises the wizard, presses the button and waits for the window to return.
bool TestChange2Root::pressAndWaitBack(pid_t wizard)
{
    if (probe->send(wizard, "minimize") != "ok" || !isMinimized(wizard))
        return false;
    if (probe->send(wizard, "click btnChange2Root") != "ok")
        return false;
    return QTest::qWaitFor([&] { return !isMinimized(wizard); }, 20000);
}

QList<pid_t> TestChange2Root::zombiesOf(pid_t parent) const
{
    QList<pid_t> zombies;
    for (pid_t pid : childrenOf(parent)) {
        if (processState(pid) == 'Z')
            zombies.append(pid);
    }
    return zombies;
}

void TestChange2Root::acceptedLaunchReplacesWizard_data()
{
    QTest::addColumn<bool>("bAppImage");
    QTest::addColumn<bool>("bXauthority");
    QTest::newRow("APPIMAGE names the program") << true << true;
    QTest::newRow("APPIMAGE empty: the program's own path") << false << true;
    QTest::newRow("XAUTHORITY unset") << true << false;
}

void TestChange2Root::acceptedLaunchReplacesWizard()
{
    QFETCH(bool, bAppImage);
    QFETCH(bool, bXauthority);
    if (!bAppImage)
        baAppImage.clear();
    bXauthoritySet = bXauthority;
    setMode("run");
    const pid_t oldWizard = startWizard();
    QVERIFY(oldWizard > 0);

    QCOMPARE(probe->send(oldWizard, "click btnChange2Root"), QByteArray("ok"));
    int status = 0;
    QVERIFY(waitChildEnd(oldWizard, status));
    QVERIFY2(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL, "the new wizard kills the old one");

    const passwd* pw = getpwuid(geteuid());
    QVERIFY(pw);
    const QString strProgram = bAppImage ? QString::fromLocal8Bit(baAppImage)
                                         : QFileInfo(QStringLiteral(TAVELIN_GUI_BINARY)).canonicalFilePath();
    const QStringList expected{
        QStringLiteral("env"),
        QStringLiteral("DISPLAY=") + xvfb.display(),
        QStringLiteral("XAUTHORITY=") + (bXauthority ? QString::fromLocal8Bit(baXauthority) : QString()),
        QStringLiteral("SUDO_USERID=%1").arg(geteuid()),
        QStringLiteral("SUDO_USERNAME=") + QString::fromLocal8Bit(pw->pw_name),
        QStringLiteral("FORKPID=%1").arg(oldWizard),
        strProgram,
    };
    QCOMPARE(recordedCalls(), QList<QStringList>{expected});

    QList<pid_t> newWizards;
    QVERIFY2(QTest::qWaitFor(
        [&] {
            newWizards = probe->readyWizards();
            newWizards.removeAll(oldWizard);
            return !newWizards.isEmpty();
        },
        20000),
             readFile(path("wizard.log")).constData());
    QCOMPARE(newWizards.size(), 1);
    const QByteArray baEnviron = readFile(QStringLiteral("/proc/%1/environ").arg(newWizards.first()));
    QVERIFY(baEnviron.split('\0').contains("FORKPID=" + QByteArray::number(oldWizard)));
    // Answering after the old one is gone: the new wizard is the one left.
    QCOMPARE(probe->send(newWizards.first(), "ping"), QByteArray("pong"));
}

void TestChange2Root::refusedLaunchBringsWizardBack_data()
{
    QTest::addColumn<EPathKind>("pathKind");
    QTest::addColumn<QByteArray>("mode");
    QTest::newRow("pkexec refuses with 126") << standInFirst << QByteArray("126");
    QTest::newRow("pkexec ends with 127") << standInFirst << QByteArray("127");
    QTest::newRow("pkexec missing from PATH") << noPkexec << QByteArray();
    QTest::newRow("bash missing from PATH") << noBash << QByteArray();
}

void TestChange2Root::refusedLaunchBringsWizardBack()
{
    QFETCH(EPathKind, pathKind);
    QFETCH(QByteArray, mode);
    if (!mode.isEmpty())
        setMode(mode);
    const pid_t wizard = startWizard(pathKind);
    QVERIFY(wizard > 0);

    for (int press = 1; press <= 2; ++press) {
        QVERIFY2(pressAndWaitBack(wizard), "the window comes back after a refused try");
        QCOMPARE(probe->send(wizard, "ping"), QByteArray("pong"));
        QCOMPARE(childrenOf(wizard), QList<pid_t>());
    }
    const QByteArray baLog = readFile(path("wizard.log"));
    switch (pathKind) {
    case standInFirst:
        QCOMPARE(recordedCalls().size(), 2);
        break;
    case noPkexec:
        // bash reports the missing program once for each launch.
        QCOMPARE(baLog.count("pkexec: command not found"), 2);
        break;
    case noBash:
        QVERIFY(recordedCalls().isEmpty());
        break;
    }
}

void TestChange2Root::pressWhileWaitingLaunchesNothing_data()
{
    QTest::addColumn<QByteArray>("code");
    QTest::addColumn<bool>("bExits");
    QTest::newRow("stand-in then refuses") << QByteArray("126") << false;
    QTest::newRow("stand-in then ends with 0, old wizard left alive") << QByteArray("0") << true;
}

void TestChange2Root::pressWhileWaitingLaunchesNothing()
{
    QFETCH(QByteArray, code);
    QFETCH(bool, bExits);
    setMode("wait");
    const pid_t wizard = startWizard();
    QVERIFY(wizard > 0);

    QCOMPARE(probe->send(wizard, "minimize"), QByteArray("ok"));
    QCOMPARE(probe->send(wizard, "click btnChange2Root"), QByteArray("ok"));
    QTRY_COMPARE_WITH_TIMEOUT(recordedCalls().size(), 1, 20000);
    const QList<pid_t> launched = childrenOf(wizard);
    QCOMPARE(launched.size(), 1);
    for (int press = 0; press < 2; ++press)
        QCOMPARE(probe->send(wizard, "click btnChange2Root"), QByteArray("ok"));
    // A fork would show at once among the children; the clicks are done.
    QCOMPARE(childrenOf(wizard), launched);
    QVERIFY(isMinimized(wizard));

    QVERIFY(release(code));
    if (bExits) {
        int status = 0;
        QVERIFY(waitChildEnd(wizard, status));
        QVERIFY2(WIFEXITED(status), "the event loop ends, no signal");
        QCOMPARE(WEXITSTATUS(status), 0);
    } else {
        QTRY_VERIFY_WITH_TIMEOUT(!isMinimized(wizard), 20000);
        QCOMPARE(childrenOf(wizard), QList<pid_t>());
    }
    QCOMPARE(recordedCalls().size(), 1);
}

void TestChange2Root::strayChildIsNoLaunchResult()
{
    setMode("126");
    const pid_t wizard = startWizard();
    QVERIFY(wizard > 0);
    // One refused launch first, so that the SIGCHLD handler is in place.
    QVERIFY(pressAndWaitBack(wizard));

    // A stray ending with 0 while idle: no exit, nothing reaped.
    const pid_t strayIdle = static_cast<pid_t>(probe->send(wizard, "stray 0").toInt());
    QVERIFY(strayIdle > 0);
    QTRY_COMPARE_WITH_TIMEOUT(processState(strayIdle), 'Z', 20000);

    // A stray ending with 0 while a launch waits: the launch still waits.
    setMode("wait");
    QCOMPARE(probe->send(wizard, "minimize"), QByteArray("ok"));
    QCOMPARE(probe->send(wizard, "click btnChange2Root"), QByteArray("ok"));
    QTRY_COMPARE_WITH_TIMEOUT(recordedCalls().size(), 2, 20000);
    const pid_t strayWaiting = static_cast<pid_t>(probe->send(wizard, "stray 0").toInt());
    QVERIFY(strayWaiting > 0);
    QTRY_COMPARE_WITH_TIMEOUT(processState(strayWaiting), 'Z', 20000);
    QCOMPARE(probe->send(wizard, "ping"), QByteArray("pong"));
    QVERIFY2(isMinimized(wizard), "a stray's end does not bring the window back");
    const QList<pid_t> children = childrenOf(wizard);
    QCOMPARE(probe->send(wizard, "click btnChange2Root"), QByteArray("ok"));
    QCOMPARE(childrenOf(wizard), children);

    QVERIFY(release("126"));
    QTRY_VERIFY_WITH_TIMEOUT(!isMinimized(wizard), 20000);
    QCOMPARE(recordedCalls().size(), 2);
    // Both strays are still there for their own parent to reap.
    QCOMPARE(zombiesOf(wizard).size(), 2);
    for (pid_t stray : {strayIdle, strayWaiting})
        QCOMPARE(probe->send(wizard, "reap " + QByteArray::number(stray)),
                 "reaped=" + QByteArray::number(stray) + " status=0");
    QCOMPARE(childrenOf(wizard), QList<pid_t>());
}

void TestChange2Root::blankInProgramPathSplits()
{
    QVERIFY(QFile::link(QStringLiteral(TAVELIN_GUI_BINARY), path("work/My Demo.AppImage")));
    baAppImage = path("work/My Demo.AppImage").toLocal8Bit();
    const pid_t wizard = startWizard();
    QVERIFY(wizard > 0);

    QVERIFY(pressAndWaitBack(wizard));
    const QList<QStringList> calls = recordedCalls();
    QCOMPARE(calls.size(), 1);
    QCOMPARE(calls.first().mid(6), (QStringList{path("work/My"), QStringLiteral("Demo.AppImage")}));
}

QTEST_GUILESS_MAIN(TestChange2Root)
#include "tst_change2root.moc"
