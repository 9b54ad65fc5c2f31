#include "wizardsupport.h"

#include <QTemporaryDir>
#include <QtTest>

using namespace TestSupport;

class tst_CopyDirectory : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        QVERIFY(QDir(tmpDir.path()).removeRecursively() && makeTree(tmpDir.path() + "/out", {"target", "tdir/", "tdir/inner"}));
        counter = 0;
    }

    void copies_data()
    {
        QTest::addColumn<QStringList>("source");
        QTest::addColumn<QStringList>("existing"); // below dst
        QTest::addColumn<QString>("dstName");
        QTest::addColumn<bool>("cover");
        QTest::addColumn<int>("stateBefore");
        QTest::addColumn<bool>("result");
        QTest::addColumn<int>("stateAfter");
        QTest::addColumn<int>("counted");
        QTest::addColumn<QStringList>("tree"); // of dst

        const int installing = MainWindow::installing;
        const int failed = MainWindow::failed;
        const int cancel = MainWindow::cancel;
        const QStringList tree{"B/", "B/b", "B/deeper/", "B/deeper/c", "Z", "a"};
        QTest::newRow("new destination: each directory and file counted")
            << tree << QStringList() << "dst" << true << installing << true << installing << 7 << tree;
        QTest::newRow("existing destination: files replaced, no directory counted")
            << tree << QStringList{"B/", "B/deeper/", "B/x", "a->out/target"} << "dst" << true << installing << true << installing << 4
            << QStringList{"B/", "B/b", "B/deeper/", "B/deeper/c", "B/x", "Z", "a"};
        QTest::newRow("hidden entries stay behind at any depth") << QStringList{".hidden", ".dir/", ".dir/x", "s/", "s/.h", "s/v"}
            << QStringList() << "dst" << true << installing << true << installing << 3 << QStringList{"s/", "s/v"};
        QTest::newRow("empty source") << QStringList() << QStringList() << "dst" << true << installing << true << installing << 1 << QStringList();
        QTest::newRow("links followed; FIFOs and dangling links left out")
            << QStringList{"plain", "filelink->OUT/target", "dirlink->OUT/tdir", "dangling->OUT/gone", "fifo|"} << QStringList() << "dst"
            << true << installing << true << installing << 5 << QStringList{"dirlink/", "dirlink/inner", "filelink", "plain"};
        QTest::newRow("link to a sibling is no loop") << QStringList{"sub/", "sub/twin->../other", "other/", "other/o"} << QStringList()
            << "dst" << true << installing << true << installing << 6 << QStringList{"other/", "other/o", "sub/", "sub/twin/", "sub/twin/o"};
        QTest::newRow("link to the parent loops") << QStringList{"sub/", "sub/up->.."} << QStringList() << "dst" << true << installing
                                                  << false << failed << 2 << QStringList{"sub/"};
        QTest::newRow("link to the copy's root by absolute path loops") << QStringList{"sub/", "sub/deeper/", "sub/deeper/root->SRC"}
            << QStringList() << "dst" << true << installing << false << failed << 3 << QStringList{"sub/", "sub/deeper/"};
        QTest::newRow("directory where a file is to be replaced: remove fails")
            << QStringList{"a", "x"} << QStringList{"x/", "x/in"} << "dst" << true << installing << false << failed << 1 << QStringList{"a", "x/", "x/in"};
        QTest::newRow("file where a directory must go: mkdir fails")
            << QStringList{"a", "x/", "x/in"} << QStringList{"x"} << "dst" << true << installing << false << failed << 1 << QStringList{"a", "x"};
        QTest::newRow("no cover, file in place: copy fails")
            << QStringList{"a", "x"} << QStringList{"x"} << "dst" << false << installing << false << failed << 1 << QStringList{"a", "x"};
        QTest::newRow("mkdir fails after a cancel: failed wins")
            << QStringList{"a"} << QStringList{"blocker"} << "dst/blocker/new" << true << cancel << false << failed << 0 << QStringList{"blocker"};
        QTest::newRow("cancel seen after a successful mkdir")
            << QStringList{"a"} << QStringList() << "dst/new" << true << cancel << false << cancel << 0 << QStringList{"new/"};
        QTest::newRow("cancel seen in a directory with no entries")
            << QStringList() << QStringList{"e/"} << "dst" << true << cancel << false << cancel << 0 << QStringList{"e/"};
    }

    void copies()
    {
        QFETCH(QStringList, source);
        QFETCH(QStringList, existing);
        QFETCH(QString, dstName);
        QFETCH(bool, cover);
        QFETCH(int, stateBefore);
        QVERIFY(makeTree(src(), source.replaceInStrings("OUT", tmpDir.path() + "/out").replaceInStrings("SRC", src())));
        if (!existing.isEmpty() || dstName != "dst")
            QVERIFY(makeTree(dst(), existing.replaceInStrings("out/", tmpDir.path() + "/out/")));
        window.setState(MainWindow::EInstallState(stateBefore));

        QTEST(window.copyDirectory(src(), tmpDir.path() + "/" + dstName, cover, counter), "result");
        QTEST(int(window.installState()), "stateAfter");
        QTEST(counter.load(), "counted");
        QTEST(treeOf(dst()), "tree");
        for (const QString& strEntry : QStringList{"a", "B/deeper/c", "filelink", "dirlink/inner"}) {
            if (QFileInfo(dst() + "/" + strEntry).isFile() && QFileInfo(src() + "/" + strEntry).isFile())
                QCOMPARE(readFile(dst() + "/" + strEntry), readFile(src() + "/" + strEntry));
        }
    }

private:
    QString src() const { return tmpDir.path() + "/src"; }
    QString dst() const { return tmpDir.path() + "/dst"; }

    QTemporaryDir tmpDir;
    DProbeWindow window;
    std::atomic<int> counter{0};
};

QTEST_MAIN(tst_CopyDirectory)
#include "tst_copydirectory.moc"
