#include <QtTest>

#include <unistd.h>

// The real tavelin-gui under Xvfb, each row in a private PID namespace: the
// sentinel there is pid 2 and leads process group 2, so a wrong kill of -1 or
// -2 would reach it and nothing outside; it ignores every signal that can be
// ignored, so only SIGKILL ends it. TAVELIN_GUI_UNDER_TEST names another
// build of it, such as the portable one the AppImage carries.
class tst_Main : public QObject
{
    Q_OBJECT

private slots:
    void forkPid_data()
    {
        QTest::addColumn<QString>("value");
        QTest::addColumn<bool>("sentinelDies");

        QTest::newRow("the named process is killed") << "SENTINEL" << true;
        QTest::newRow("unset") << "UNSET" << false;
        QTest::newRow("empty") << "" << false;
        QTest::newRow("zero") << "0" << false;
        QTest::newRow("minus one") << "-1" << false;
        QTest::newRow("negative") << "-2" << false;
        QTest::newRow("digits then letters") << "2x" << false;
        QTest::newRow("2147483648 turns negative") << "2147483648" << false;
        QTest::newRow("4294967294 would be group 2") << "4294967294" << false;
        QTest::newRow("4294967295 would be every process") << "4294967295" << false;
        QTest::newRow("4294967296 overflows to 0") << "4294967296" << false;
    }

    void forkPid()
    {
        QFETCH(QString, value);
        QFETCH(bool, sentinelDies);
        if (geteuid() != 0)
            QSKIP("a private PID namespace needs root here");

        static const char script[] = R"SH(
    (trap '' TERM INT HUP QUIT; exec setsid sleep 600) & s=$!
    case "$1" in
      UNSET) env -u FORKPID "$2" & ;;
      SENTINEL) FORKPID=$s "$2" & ;;
      *) FORKPID="$1" "$2" & ;;
    esac
    w=$!
    i=0
    until grep -q 'plugins/platforms/' /proc/$w/maps 2>/dev/null; do
      i=$((i+1)); [ $i -gt 200 ] && { echo "WIZARD=not-started"; break; }; sleep 0.1
    done
    win=$(timeout 20 xdotool search --sync --onlyvisible --pid $w 2>/dev/null | head -n 1)
    command -v xprop >/dev/null || echo "ICON=no-xprop"
    echo "ICON=$(xprop -id "$win" _NET_WM_ICON 2>/dev/null | grep -o 'Icon ([0-9]* x [0-9]*)' | tr '\n' ' ')"
    state=$(sed 's/.*) //' /proc/$s/stat | cut -c1)
    [ "$state" = Z ] || [ -z "$state" ] && echo "SENTINEL=dead" || echo "SENTINEL=alive"
    kill -9 $w $s 2>/dev/null
    wait
    )SH";
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("APPDIR", TAVELIN_SOURCE_DIR "/examples/demo");
        // The forced gtk3 theme needs a real display.
        env.remove("QT_QPA_PLATFORM");
        QProcess process;
        process.setProcessEnvironment(env);
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start("xvfb-run", {"-a", "unshare", "--pid", "--fork", "--mount-proc", "--kill-child", "sh", "-c",
                                   script, "sh", value, wizardUnderTest()});
        QVERIFY(process.waitForFinished(60000));
        const QByteArray output = process.readAll();
        if (process.exitCode() != 0 && output.contains("unshare"))
            QSKIP(qPrintable("no private PID namespace: " + QString::fromLocal8Bit(output)));
        QVERIFY2(!output.contains("WIZARD=not-started"), output.constData());
        QVERIFY2(output.contains(sentinelDies ? "SENTINEL=dead" : "SENTINEL=alive"), output.constData());
        // The window's icon is the compiled-in one, in its one size.
        if (output.contains("ICON=no-xprop"))
            QSKIP("xprop is not installed (Debian package x11-utils)");
        QVERIFY2(output.contains("ICON=Icon (32 x 32) \n"), output.constData());
    }

private:
    static QString wizardUnderTest()
    {
        const QString strOther = qEnvironmentVariable("TAVELIN_GUI_UNDER_TEST");
        return strOther.isEmpty() ? QStringLiteral(TAVELIN_GUI_BINARY) : strOther;
    }
};

QTEST_GUILESS_MAIN(tst_Main)
#include "tst_main.moc"
