#include "mainwindow.h"
#include "testsupport.h"

#include <QApplication>
#include <QDir>
#include <QLineEdit>
#include <QPushButton>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

using namespace TestSupport;

namespace {

const int kRuns = 100;
const int kRunTimeoutMs = 60000;

// How a run ends: by the user, by the window manager, by the window's end, or by itself.
enum EEnding { cancelAtOnce, cancelLater, closeLater, destroyLater, runToEnd, endingCount };

} // namespace

class tst_InstallStress : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void manyRunsEndedAtVariedMoments();

private:
    QTemporaryDir tmpDir;
    QTemporaryDir homeDir;
};

void tst_InstallStress::initTestCase()
{
    QVERIFY(tmpDir.isValid() && homeDir.isValid());
    qputenv("HOME", QFile::encodeName(homeDir.path()));
    QApplication::setQuitOnLastWindowClosed(false);
    QStringList appFiles;
    for (int i = 0; i < 24; ++i)
        appFiles << QStringLiteral("dir%1/file%2").arg(i % 4).arg(i);
    const QString strAppDir = tmpDir.path() + "/payload";
    QVERIFY(writePayload(strAppDir, manifestJson(28, "stress.desktop"), "[Desktop Entry]\nExec=x\n", appFiles));
    loadPayload(strAppDir);
}

void tst_InstallStress::manyRunsEndedAtVariedMoments()
{
    if (!applicationsDirUnavailable().isEmpty())
        QSKIP(qPrintable(applicationsDirUnavailable()));
    int endings[endingCount] = {};
    for (int run = 0; run < kRuns; ++run) {
        const EEnding ending = EEnding(run % endingCount);
        const int threshold = (run * 7) % 29;
        // Existing locations keep the first run's entry, so no run fails on a taken name.
        const QString strLocation = tmpDir.path() + QStringLiteral("/runs/%1").arg(run);
        QVERIFY(QDir().mkpath(strLocation));

        std::unique_ptr<DProbeWindow> window(new DProbeWindow);
        window->init();
        window->show();
        window->findChild<QLineEdit*>("editInstallDir")->setText(strLocation);
        window->createButton()->setEnabled(true);
        window->createButton()->click();
        QCOMPARE(window->installState() == MainWindow::pending, false);

        if (ending != cancelAtOnce && ending != runToEnd)
            QTRY_VERIFY_WITH_TIMEOUT(window->counter() >= threshold || window->installState() != MainWindow::installing,
                                     kRunTimeoutMs);
        if (ending == cancelAtOnce || ending == cancelLater)
            window->cancelButton()->click();
        else if (ending == closeLater)
            window->close();
        if (ending != destroyLater) {
            QTRY_VERIFY_WITH_TIMEOUT(window->installState() != MainWindow::installing, kRunTimeoutMs);
            // Most runs paint their end at once; a few wait for the real tick.
            if (run % 20 == 4)
                QTRY_VERIFY_WITH_TIMEOUT(!window->timerActive(), kRunTimeoutMs);
            else
                window->timerProcRefresh();
            QCOMPARE(window->cancelButton()->text(), QStringLiteral("关闭"));
            const MainWindow::EInstallState state = window->installState();
            if (ending == runToEnd)
                QCOMPARE(state, MainWindow::installed);
            else
                QVERIFY2(state == MainWindow::cancel || state == MainWindow::installed, qPrintable(strLocation));
        }
        window.reset();
        ++endings[ending];
        // The script comes only after a complete tree.
        if (QFileInfo::exists(strLocation + "/uninstall.sh"))
            QVERIFY(QFileInfo::exists(strLocation + "/dir3/file23"));
    }
    for (int count : endings)
        QVERIFY(count > 0);
}

TAVELIN_TEST_MAIN_ISOLATED(tst_InstallStress)
#include "tst_installstress.moc"
