#include "mainwindow.h"

#include <QPushButton>
#include <QtTest>

// The wizard's shell: its title, size, buttons, and what does and does not
// close it.
class tst_MainWindow : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void title_data();
    void title();
    void shell();
    void staysOpen_data();
    void staysOpen();
    void closeEndsEventLoop_data();
    void closeEndsEventLoop();

private:
    static TAppPackInfo& record() { return *DTavelinGuiConfig::getInstance().getAppPackInfo(); }
};

void tst_MainWindow::init()
{
    record() = TAppPackInfo();
}

void tst_MainWindow::title_data()
{
    QTest::addColumn<QString>("nameEng");
    QTest::addColumn<QString>("title");

    QTest::newRow("English name") << "DemoViewer" << QStringLiteral("安装向导 - DemoViewer");
    QTest::newRow("no manifest: nothing behind the dash") << "" << QStringLiteral("安装向导 - ");
    QTest::newRow("percent signs kept") << "100%1" << QStringLiteral("安装向导 - 100%1");
}

void tst_MainWindow::title()
{
    QFETCH(QString, nameEng);
    record().base.nameEng = nameEng.toStdString();
    MainWindow w;
    w.init();
    QTEST(w.windowTitle(), "title");
}

void tst_MainWindow::shell()
{
    MainWindow w;
    w.init();
    w.show();
    QVERIFY(QTest::qWaitForWindowExposed(&w));

    QCOMPARE(w.minimumSize(), QSize(800, 720));
    w.resize(400, 300);
    QVERIFY(w.width() >= 800 && w.height() >= 720);

    QCOMPARE(w.pageIds(), QList<int>{0});
    auto* btnCreate = qobject_cast<QPushButton*>(w.button(QWizard::FinishButton));
    auto* btnCancel = qobject_cast<QPushButton*>(w.button(QWizard::CancelButton));
    QVERIFY(btnCreate && btnCancel);
    QCOMPARE(btnCreate->text(), QStringLiteral("安装"));
    QCOMPARE(btnCancel->text(), QStringLiteral("取消"));
    QVERIFY(btnCreate->isVisible());
    QVERIFY(btnCancel->isVisible());
    QVERIFY(!w.button(QWizard::BackButton)->isVisible());
    QVERIFY(!w.button(QWizard::NextButton)->isVisible());
    QCOMPARE(w.buttonText(QWizard::BackButton), QStringLiteral("上一步"));
    QCOMPARE(w.buttonText(QWizard::NextButton), QStringLiteral("下一步"));
}

void tst_MainWindow::staysOpen_data()
{
    QTest::addColumn<QString>("action");
    QTest::newRow("Escape") << "escape";
    QTest::newRow("accept, as the Finish role does") << "accept";
    QTest::newRow("reject, as the Cancel role does") << "reject";
}

void tst_MainWindow::staysOpen()
{
    QFETCH(QString, action);
    MainWindow w;
    w.init();
    w.show();
    QVERIFY(QTest::qWaitForWindowExposed(&w));
    if (action == QLatin1String("escape"))
        QTest::keyClick(&w, Qt::Key_Escape);
    else if (action == QLatin1String("accept"))
        w.accept();
    else
        w.reject();
    QCoreApplication::processEvents();
    QVERIFY(w.isVisible());
    QCOMPARE(w.result(), 0);
    QCOMPARE(w.currentId(), 0);
}

void tst_MainWindow::closeEndsEventLoop_data()
{
    QTest::addColumn<bool>("fromWindowManager");
    QTest::newRow("close()") << false;
    QTest::newRow("close request of the window manager") << true;
}

void tst_MainWindow::closeEndsEventLoop()
{
    QFETCH(bool, fromWindowManager);
    MainWindow w;
    w.init();
    w.show();
    QVERIFY(QTest::qWaitForWindowExposed(&w));
    QTimer::singleShot(0, &w, [&w, fromWindowManager] {
        if (fromWindowManager) {
            // The platform delivers a close request to the native window.
            QCloseEvent event;
            QCoreApplication::sendEvent(w.windowHandle(), &event);
        } else {
            w.close();
        }
    });
    QTimer watchdog;
    QObject::connect(&watchdog, &QTimer::timeout, [] { QCoreApplication::exit(1); });
    watchdog.start(20000);
    QCOMPARE(QApplication::exec(), 0);
    QVERIFY(!w.isVisible());
}

QTEST_MAIN(tst_MainWindow)
#include "tst_mainwindow.moc"
