#include "testsupport.h"

#include <QTemporaryDir>
#include <QtTest>

#include <thread>

#include <sys/stat.h>

using namespace TestSupport;

namespace {

// Entries ending in "/" are directories; a file holds its own path.
bool makeTree(const QString& strRoot, const QStringList& entries)
{
    bool bOk = QDir().mkpath(strRoot);
    for (const QString& strEntry : entries)
        bOk = bOk && (strEntry.endsWith('/') ? QDir().mkpath(strRoot + "/" + strEntry)
                                             : writeFile(strRoot + "/" + strEntry, strEntry.toUtf8()));
    return bOk;
}

} // namespace

class tst_CopyDirectory : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void copiesTree_data();
    void copiesTree();
    void followsLinksSkipsSpecialFiles();
    void refusesLoopingLink_data();
    void refusesLoopingLink();
    void failures_data();
    void failures();
    void cancelDuringCopy_data();
    void cancelDuringCopy();

private:
    QString src() const { return tmpDir.path() + "/src"; }
    QString dst() const { return tmpDir.path() + "/dst"; }

    QTemporaryDir tmpDir;
    DProbeWindow window;
    std::atomic<int> counter{0};
};

void tst_CopyDirectory::init()
{
    QVERIFY(QDir(tmpDir.path()).removeRecursively() && QDir().mkpath(tmpDir.path()));
    window.setState(MainWindow::installing);
    counter = 0;
}

void tst_CopyDirectory::copiesTree_data()
{
    QTest::addColumn<QStringList>("source");
    QTest::addColumn<QStringList>("existing");
    QTest::addColumn<QStringList>("expected");
    QTest::addColumn<int>("counted");

    const QStringList tree{"B/", "B/b", "B/deeper/", "B/deeper/c", "Z", "a"};
    QTest::newRow("new destination: each directory and file counted") << tree << QStringList() << tree << 7;
    QTest::newRow("existing destination: files replaced, no directory counted")
        << tree << QStringList{"B/", "B/deeper/", "B/x"} << QStringList{"B/", "B/b", "B/deeper/", "B/deeper/c", "B/x", "Z", "a"} << 4;
    QTest::newRow("hidden entries stay behind at any depth")
        << QStringList{".hidden", ".dir/", ".dir/x", "s/", "s/.h", "s/v"} << QStringList() << QStringList{"s/", "s/v"} << 3;
    QTest::newRow("empty source") << QStringList() << QStringList() << QStringList() << 1;
}

void tst_CopyDirectory::copiesTree()
{
    QFETCH(QStringList, source);
    QFETCH(QStringList, existing);
    QFETCH(QStringList, expected);
    QVERIFY(makeTree(src(), source));
    if (!existing.isEmpty())
        QVERIFY(makeTree(dst(), existing) && writeFile(dst() + "/a", "old"));

    QVERIFY(window.copyDirectory(src(), dst(), true, counter));
    QCOMPARE(treeOf(dst()), expected);
    QTEST(counter.load(), "counted");
    QCOMPARE(window.installState(), MainWindow::installing);
    for (const QString& strEntry : source) {
        if (!strEntry.endsWith('/') && !strEntry.contains("."))
            QCOMPARE(readFile(dst() + "/" + strEntry), strEntry.toUtf8());
    }
}

void tst_CopyDirectory::followsLinksSkipsSpecialFiles()
{
    QVERIFY(makeTree(tmpDir.path() + "/outside", {"target", "tdir/", "tdir/inner"}));
    QVERIFY(makeTree(src(), {"plain"}));
    QVERIFY(QFile::link(tmpDir.path() + "/outside/target", src() + "/filelink"));
    QVERIFY(QFile::link(tmpDir.path() + "/outside/tdir", src() + "/dirlink"));
    QVERIFY(QFile::link(tmpDir.path() + "/outside/gone", src() + "/dangling"));
    QCOMPARE(mkfifo(QFile::encodeName(src() + "/fifo").constData(), 0600), 0);

    QVERIFY(window.copyDirectory(src(), dst(), true, counter));
    QCOMPARE(treeOf(dst()), QStringList({"dirlink/", "dirlink/inner", "filelink", "plain"}));
    QCOMPARE(readFile(dst() + "/filelink"), QByteArray("target"));
    QCOMPARE(counter.load(), 5);
}

void tst_CopyDirectory::refusesLoopingLink_data()
{
    QTest::addColumn<QString>("linkAt");
    QTest::addColumn<QString>("target");
    QTest::addColumn<bool>("loops");
    QTest::newRow("link to the parent") << "sub/up" << ".." << true;
    QTest::newRow("link to the copy's root") << "sub/deeper/root" << "../.." << true;
    QTest::newRow("link to itself by absolute path") << "sub/me" << "SRC/sub" << true;
    QTest::newRow("link to a sibling is no loop") << "sub/twin" << "../other" << false;
}

void tst_CopyDirectory::refusesLoopingLink()
{
    QFETCH(QString, linkAt);
    QFETCH(QString, target);
    QFETCH(bool, loops);
    QVERIFY(makeTree(src(), {"sub/", "sub/deeper/", "sub/f", "other/", "other/o"}));
    QVERIFY(QFile::link(target.replace("SRC", src()), src() + "/" + linkAt));

    QCOMPARE(window.copyDirectory(src(), dst(), true, counter), !loops);
    QCOMPARE(window.installState(), loops ? MainWindow::failed : MainWindow::installing);
    QCOMPARE(readFile(dst() + "/" + linkAt + "/o"), loops ? QByteArray() : QByteArray("other/o"));
}

void tst_CopyDirectory::failures_data()
{
    QTest::addColumn<QStringList>("source");
    QTest::addColumn<QStringList>("existing");
    QTest::addColumn<QString>("dstName");
    QTest::addColumn<bool>("cover");
    QTest::addColumn<int>("stateBefore");
    QTest::addColumn<int>("stateAfter");
    QTest::addColumn<int>("counted");

    const int installing = MainWindow::installing;
    const int failed = MainWindow::failed;
    const int cancel = MainWindow::cancel;
    QTest::newRow("directory where a file is to be replaced: remove fails")
        << QStringList{"a", "x"} << QStringList{"x/", "x/in"} << "dst" << true << installing << failed << 1;
    QTest::newRow("file where a directory must go: mkdir fails")
        << QStringList{"a", "x/", "x/in"} << QStringList{"x"} << "dst" << true << installing << failed << 1;
    QTest::newRow("no cover, file in place: copy fails")
        << QStringList{"a", "x"} << QStringList{"x"} << "dst" << false << installing << failed << 1;
    QTest::newRow("mkdir fails after a cancel: failed wins")
        << QStringList{"a"} << QStringList{"blocker"} << "dst/blocker/new" << true << cancel << failed << 0;
    QTest::newRow("cancel seen after a successful mkdir")
        << QStringList{"a"} << QStringList() << "dst/new" << true << cancel << cancel << 0;
    QTest::newRow("cancel seen in a directory with no entries")
        << QStringList() << QStringList{"e/"} << "dst" << true << cancel << cancel << 0;
}

void tst_CopyDirectory::failures()
{
    QFETCH(QStringList, source);
    QFETCH(QStringList, existing);
    QFETCH(QString, dstName);
    QFETCH(bool, cover);
    QFETCH(int, stateBefore);
    QVERIFY(makeTree(src(), source) && makeTree(dst(), existing));
    window.setState(MainWindow::EInstallState(stateBefore));

    QVERIFY(!window.copyDirectory(src(), tmpDir.path() + "/" + dstName, cover, counter));
    QTEST(int(window.installState()), "stateAfter");
    QTEST(counter.load(), "counted");
    QCOMPARE(QFileInfo(dst() + "/new").isDir(), dstName == "dst/new");
}

// A FIFO link holds the copy inside one entry, past its test of the state.
void tst_CopyDirectory::cancelDuringCopy_data()
{
    QTest::addColumn<QStringList>("source");
    QTest::addColumn<QString>("gateAt");
    QTest::addColumn<bool>("result");
    QTest::addColumn<QStringList>("expected");
    QTest::newRow("in the middle: the next entry stops it")
        << QStringList{"a", "b", "x", "y/", "y/z"} << "m" << false << QStringList{"a", "b", "m"};
    QTest::newRow("after the last entry passed its test: the copy completes")
        << QStringList{"a", "b/", "b/c"} << "z" << true << QStringList{"a", "b/", "b/c", "z"};
    QTest::newRow("last entry of a subdirectory: seen at the parent's next entry")
        << QStringList{"a", "d/", "d/c", "e"} << "d/z" << false << QStringList{"a", "d/", "d/c", "d/z"};
}

void tst_CopyDirectory::cancelDuringCopy()
{
    QFETCH(QStringList, source);
    QFETCH(QString, gateAt);
    QVERIFY(makeTree(src(), source));
    DFifoGate gate(tmpDir.path() + "/gate");
    QVERIFY(QFile::link(tmpDir.path() + "/gate", src() + "/" + gateAt));
    bool bResult = false;

    std::thread worker([&] { bResult = window.copyDirectory(src(), dst(), true, counter); });
    const bool bReached = gate.waitForReader();
    window.onclickCancel();
    gate.releaseReader();
    worker.join();
    QVERIFY(bReached);
    QCOMPARE(window.installState(), MainWindow::cancel);
    QTEST(bResult, "result");
    QTEST(treeOf(dst()), "expected");
}

QTEST_MAIN(tst_CopyDirectory)
#include "tst_copydirectory.moc"
