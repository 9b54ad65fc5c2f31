// The switch to root, pressed in this process's own wizard: a pkexec stand-in
// first in PATH records what it is asked to run and answers as told. The new
// wizard's side, the kill of FORKPID, is tst_main's.
#include "wizardsupport.h"

#include <QPushButton>
#include <QTemporaryDir>
#include <QtTest>

#include <functional>
#include <memory>

#include <pwd.h>
#include <sys/wait.h>

using namespace TestSupport;

namespace {

// Records its arguments as one line, each ended by a unit separator, then acts
// on the mode file: "run" runs them, "wait" exits with the code that appears
// in the file "release" (or with 1 once the test's directory is gone), and a
// number exits with it.
const char kStandIn[] = R"SH(#!/bin/bash
dir=$TAVELIN_STANDIN_DIR
{ printf '%s\037' "$@"; echo; } >> "$dir/calls"
mode=$(< "$dir/mode")
case $mode in
run) exec "$@" ;;
wait) while [ ! -s "$dir/release" ] && [ -d "$dir" ]; do sleep 0.02; done; exit "$(cat "$dir/release" 2>/dev/null || echo 1)" ;;
*) exit "$mode" ;;
esac
)SH";

// The "AppImage" an accepted launch starts: it notes its FORKPID and ends with 0.
const char kAppImage[] = "#!/bin/sh\necho \"$FORKPID\" > \"$TAVELIN_STANDIN_DIR/started\"\n";

enum ELoopEnd { byWizard = 0, byCondition = 1, byTimeout = 2 };

// Runs the event loop until the condition holds, or until the wizard ends it with 0.
int runLoopUntil(const std::function<bool()>& condition)
{
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, [&] {
        if (condition())
            QCoreApplication::exit(byCondition);
    });
    poll.start(10);
    QTimer watchdog;
    QObject::connect(&watchdog, &QTimer::timeout, [] { QCoreApplication::exit(byTimeout); });
    watchdog.start(20000);
    return QApplication::exec();
}

// Children of the main thread, zombies included: each fork of the button shows here at once.
QStringList ownChildren()
{
    return QString::fromLatin1(readFile(QStringLiteral("/proc/self/task/%1/children").arg(getpid())))
        .split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

} // namespace

class tst_Change2Root : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY(tmp.isValid());
        const auto exe = QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner;
        QVERIFY(writeFile(path("bin/pkexec"), kStandIn) && QFile::setPermissions(path("bin/pkexec"), exe));
        for (const char* name : {"Demo.AppImage", "My Demo.AppImage"})
            QVERIFY(writeFile(path("work/") + name, kAppImage) && QFile::setPermissions(path("work/") + name, exe));
        // Without pkexec, bash must still be found; without bash, nothing is.
        QVERIFY(QDir().mkpath(path("nopkexec")) && QDir().mkpath(path("nobash")) && QDir().mkpath(path("standin")));
        QVERIFY(QFile::link("/bin/bash", path("nopkexec/bash")) && QFile::link("/usr/bin/env", path("nopkexec/env")));
        qputenv("TAVELIN_STANDIN_DIR", QFile::encodeName(path("standin")));
        qputenv("HOME", QFile::encodeName(tmp.path()));
        qputenv("DISPLAY", ":97");
    }

    void init()
    {
        QFile::remove(path("standin/calls"));
        QFile::remove(path("standin/started"));
        QFile::remove(path("standin/release"));
        qputenv("PATH", QFile::encodeName(path("bin")) + ":/usr/bin:/bin");
        qputenv("APPIMAGE", QFile::encodeName(path("work/Demo.AppImage")));
        qputenv("XAUTHORITY", QFile::encodeName(path("xauthority")));
        window = std::make_unique<MainWindow>();
        window->init();
        window->showMinimized();
    }

    void launch_data()
    {
        QTest::addColumn<QByteArray>("pathDir"); // first in PATH
        QTest::addColumn<QByteArray>("mode");
        QTest::addColumn<QString>("appImage"); // below work/, or empty
        QTest::addColumn<bool>("bXauthority");
        QTest::addColumn<int>("calls"); // of the stand-in, after two presses of a refused launch

        QTest::newRow("accepted: the event loop ends with 0") << QByteArray("bin") << QByteArray("run") << "Demo.AppImage" << true << 1;
        QTest::newRow("pkexec refuses with 126") << QByteArray("bin") << QByteArray("126") << "Demo.AppImage" << true << 2;
        QTest::newRow("pkexec ends with 127") << QByteArray("bin") << QByteArray("127") << "Demo.AppImage" << true << 2;
        QTest::newRow("APPIMAGE empty: the program's own path") << QByteArray("bin") << QByteArray("1") << "" << true << 2;
        QTest::newRow("XAUTHORITY unset") << QByteArray("bin") << QByteArray("1") << "Demo.AppImage" << false << 2;
        QTest::newRow("a blank splits the path") << QByteArray("bin") << QByteArray("1") << "My Demo.AppImage" << true << 2;
        QTest::newRow("pkexec missing from PATH") << QByteArray("nopkexec") << QByteArray("1") << "Demo.AppImage" << true << 0;
        QTest::newRow("bash missing from PATH") << QByteArray("nobash") << QByteArray("1") << "Demo.AppImage" << true << 0;
    }

    void launch()
    {
        QFETCH(QByteArray, pathDir);
        QFETCH(QByteArray, mode);
        QFETCH(QString, appImage);
        QFETCH(bool, bXauthority);
        QFETCH(int, calls);
        setMode(mode);
        qputenv("PATH", QFile::encodeName(path(pathDir)) + (pathDir == "bin" ? ":/usr/bin:/bin" : ""));
        qputenv("APPIMAGE", appImage.isEmpty() ? QByteArray() : QFile::encodeName(path("work/" + appImage)));
        if (!bXauthority)
            qunsetenv("XAUTHORITY");

        if (mode == "run") {
            QCOMPARE(pressAndWait(), int(byWizard));
            QCOMPARE(readFile(path("standin/started")), QByteArray::number(getpid()) + '\n');
        } else {
            // Refused: the window comes back with the child reaped, and a second press launches again.
            for (int i = 0; i < 2; ++i) {
                QCOMPARE(pressAndWait(), int(byCondition));
                QCOMPARE(ownChildren(), QStringList());
            }
        }
        const QList<QStringList> recorded = recordedCalls();
        QCOMPARE(recorded.size(), calls);
        if (calls == 0)
            return;
        const QString strProgram = appImage.isEmpty() ? QCoreApplication::applicationFilePath() : path("work/" + appImage);
        const QStringList expected = QStringList{"env", "DISPLAY=:97",
            "XAUTHORITY=" + (bXauthority ? path("xauthority") : QString()),
            QStringLiteral("SUDO_USERID=%1").arg(geteuid()),
            "SUDO_USERNAME=" + QString::fromLocal8Bit(getpwuid(geteuid())->pw_name),
            QStringLiteral("FORKPID=%1").arg(getpid())} + strProgram.split(' ');
        QCOMPARE(recorded.first(), expected);
    }

    void pressWhileWaitingLaunchesNothing_data()
    {
        QTest::addColumn<QByteArray>("code");
        QTest::addColumn<bool>("bStrays");
        QTest::newRow("stand-in then refuses") << QByteArray("126") << false;
        QTest::newRow("stand-in then ends with 0, old wizard left alive") << QByteArray("0") << false;
        // Children of the wizard's own that end with 0 are no answer of a launch, and stay for their parent to reap.
        QTest::newRow("strays end with 0, while idle and while waiting") << QByteArray("126") << true;
    }

    void pressWhileWaitingLaunchesNothing()
    {
        QFETCH(QByteArray, code);
        QFETCH(bool, bStrays);
        QList<pid_t> strays;
        if (bStrays) {
            setMode("126");
            QCOMPARE(pressAndWait(), int(byCondition));
            if ((strays << fork()).last() == 0)
                _exit(0);
        }
        setMode("wait");
        window->showMinimized();
        press();
        QCOMPARE(runLoopUntil([&] { return recordedCalls().size() == 1 + bStrays; }), int(byCondition));
        const QStringList launched = ownChildren();
        press();
        press();
        QCOMPARE(ownChildren(), launched);
        if (bStrays && (strays << fork()).last() == 0)
            _exit(0);

        QVERIFY(writeFile(path("standin/release"), code));
        QCOMPARE(runLoopUntil([this] { return !window->isMinimized(); }), code == "0" ? int(byWizard) : int(byCondition));
        QCOMPARE(recordedCalls().size(), 1 + bStrays);
        for (pid_t stray : strays) {
            int status = -1;
            QCOMPARE(waitpid(stray, &status, 0), stray);
            QCOMPARE(status, 0);
        }
    }

private:
    // Presses the button of a minimised window and waits for the window to come back.
    int pressAndWait()
    {
        window->showMinimized();
        press();
        return runLoopUntil([this] { return !window->isMinimized(); });
    }

    QList<QStringList> recordedCalls() const
    {
        QList<QStringList> calls;
        for (const QString& strLine : QString::fromLocal8Bit(readFile(path("standin/calls"))).split('\n', Qt::SkipEmptyParts))
            calls << strLine.split(QChar(0x1f), Qt::SkipEmptyParts);
        return calls;
    }

    QString path(const QString& strName) const { return tmp.filePath(strName); }
    void setMode(const QByteArray& mode) { QVERIFY(writeFile(path("standin/mode"), mode)); }
    void press() { window->findChild<QPushButton*>("btnChange2Root")->click(); }

    QTemporaryDir tmp;
    std::unique_ptr<MainWindow> window;
};

QTEST_MAIN(tst_Change2Root)
#include "tst_change2root.moc"
