#include "mainwindow.h"

#include <QPushButton>
#include <QtTest>

// The wizard's shell: its title, size, buttons, and what does and does not close it.
class tst_MainWindow : public QObject
{
    Q_OBJECT

private slots:
    void title_data()
    {
        QTest::addColumn<QString>("nameEng");
        QTest::addColumn<QString>("title");
        QTest::newRow("English name, percent signs kept") << "Demo 100%1" << QStringLiteral("安装向导 - Demo 100%1");
        QTest::newRow("no manifest: nothing behind the dash") << "" << QStringLiteral("安装向导 - ");
    }

    void title()
    {
        QFETCH(QString, nameEng);
        DTavelinGuiConfig::getInstance().getAppPackInfo()->base.nameEng = nameEng.toStdString();
        MainWindow w;
        w.init();
        QTEST(w.windowTitle(), "title");
    }

    void shell()
    {
        MainWindow w;
        w.init();
        w.show();
        QVERIFY(QTest::qWaitForWindowExposed(&w));
        w.resize(400, 300);
        QCOMPARE(w.size(), QSize(800, 720));
        QCOMPARE(w.pageIds(), QList<int>{0});
        QCOMPARE(w.button(QWizard::FinishButton)->objectName(), QStringLiteral("btnCreate"));
        QCOMPARE(w.button(QWizard::CancelButton)->objectName(), QStringLiteral("btnCancel"));
        QCOMPARE(qobject_cast<QPushButton*>(w.button(QWizard::FinishButton))->text(), QStringLiteral("安装"));
        QCOMPARE(qobject_cast<QPushButton*>(w.button(QWizard::CancelButton))->text(), QStringLiteral("取消"));
        QVERIFY(w.button(QWizard::FinishButton)->isVisible() && w.button(QWizard::CancelButton)->isVisible());
        QVERIFY(!w.button(QWizard::BackButton)->isVisible() && !w.button(QWizard::NextButton)->isVisible());
    }

    void onlyCloseEndsIt_data()
    {
        QTest::addColumn<QString>("action");
        QTest::addColumn<bool>("bEnds");
        QTest::newRow("Escape") << "escape" << false;
        QTest::newRow("accept, as the Finish role does") << "accept" << false;
        QTest::newRow("reject, as the Cancel role does") << "reject" << false;
        QTest::newRow("close()") << "close" << true;
        QTest::newRow("close request of the window manager") << "platform" << true;
    }

    void onlyCloseEndsIt()
    {
        QFETCH(QString, action);
        QFETCH(bool, bEnds);
        MainWindow w;
        w.init();
        w.show();
        QVERIFY(QTest::qWaitForWindowExposed(&w));
        QTimer::singleShot(0, &w, [&w, action] {
            if (action == "escape") {
                QTest::keyClick(&w, Qt::Key_Escape);
            } else if (action == "accept") {
                w.accept();
            } else if (action == "reject") {
                w.reject();
            } else if (action == "close") {
                w.close();
            } else {
                // The platform delivers a close request to the native window.
                QCloseEvent event;
                QCoreApplication::sendEvent(w.windowHandle(), &event);
            }
        });
        // An event loop that is still running after the action did not end.
        QTimer watchdog;
        QObject::connect(&watchdog, &QTimer::timeout, [] { QCoreApplication::exit(1); });
        watchdog.start(200);
        QCOMPARE(QApplication::exec(), bEnds ? 0 : 1);
        QCOMPARE(w.isVisible(), !bEnds);
        QCOMPARE(w.result(), 0);
    }
};

QTEST_MAIN(tst_MainWindow)
#include "tst_mainwindow.moc"
