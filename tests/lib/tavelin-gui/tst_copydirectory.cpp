#include "mainwindow.h"
#include "testsupport.h"

#include <QDir>
#include <QDirIterator>
#include <QTemporaryDir>
#include <QtTest>

#include <thread>

#include <sys/stat.h>

using TestSupport::DFifoGate;
using TestSupport::DProbeWindow;
using TestSupport::readFile;
using TestSupport::writeFile;

namespace {

// Relative paths below a root; directories end in "/".
QStringList treeOf(const QString& strRoot)
{
    QStringList paths;
    QDirIterator it(strRoot, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString strPath = it.next();
        paths << strPath.mid(strRoot.size() + 1) + (it.fileInfo().isDir() ? "/" : "");
    }
    paths.sort();
    return paths;
}

bool makeTree(const QString& strRoot, const QStringList& entries)
{
    bool bOk = QDir().mkpath(strRoot);
    for (const QString& strEntry : entries) {
        if (strEntry.endsWith('/'))
            bOk = bOk && QDir().mkpath(strRoot + "/" + strEntry);
        else
            bOk = bOk && writeFile(strRoot + "/" + strEntry, strEntry.toUtf8());
    }
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
    void repeatsOverExistingTree();
    void failures_data();
    void failures();
    void cancelDuringCopy_data();
    void cancelDuringCopy();

private:
    QString src() const { return tmpDir.path() + "/src"; }
    QString dst() const { return tmpDir.path() + "/dst"; }

    QTemporaryDir tmpDir;
    DProbeWindow window;
};

void tst_CopyDirectory::init()
{
    QVERIFY(tmpDir.isValid());
    QDir(tmpDir.path()).removeRecursively();
    QVERIFY(QDir().mkpath(tmpDir.path()));
    window.setState(MainWindow::installing);
}

void tst_CopyDirectory::copiesTree_data()
{
    QTest::addColumn<QStringList>("source");
    QTest::addColumn<QStringList>("existing");
    QTest::addColumn<QStringList>("expected");
    QTest::addColumn<int>("counted");

    const QStringList tree{"a", "B/", "B/b", "B/deeper/", "B/deeper/c", "Z"};
    QTest::newRow("new destination: each directory and file counted") << tree << QStringList() << tree << 7;
    QTest::newRow("existing destination counts no directories")
        << tree << QStringList{"B/", "B/deeper/"} << tree << 4;
    QTest::newRow("hidden entries stay behind at any depth")
        << QStringList{".hidden", ".dir/", ".dir/x", "s/", "s/.h", "s/v"} << QStringList()
        << QStringList{"s/", "s/v"} << 3;
    QTest::newRow("empty source") << QStringList() << QStringList() << QStringList() << 1;
}

void tst_CopyDirectory::copiesTree()
{
    QFETCH(QStringList, source);
    QFETCH(QStringList, existing);
    QFETCH(QStringList, expected);
    QFETCH(int, counted);
    QVERIFY(makeTree(src(), source));
    if (!existing.isEmpty())
        QVERIFY(makeTree(dst(), existing));
    std::atomic<int> counter{0};

    QVERIFY(window.copyDirectory(src(), dst(), true, counter));
    expected.sort();
    QCOMPARE(treeOf(dst()), expected);
    QCOMPARE(counter.load(), counted);
    QCOMPARE(window.installState(), MainWindow::installing);
    for (const QString& strEntry : expected) {
        if (!strEntry.endsWith('/'))
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
    std::atomic<int> counter{0};

    QVERIFY(window.copyDirectory(src(), dst(), true, counter));
    QCOMPARE(treeOf(dst()), QStringList({"dirlink/", "dirlink/inner", "filelink", "plain"}));
    QVERIFY(!QFileInfo(dst() + "/filelink").isSymLink());
    QVERIFY(!QFileInfo(dst() + "/dirlink").isSymLink());
    QCOMPARE(readFile(dst() + "/filelink"), QByteArray("target"));
    QCOMPARE(readFile(dst() + "/dirlink/inner"), QByteArray("tdir/inner"));
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
    QVERIFY(QFile::link(QString(target).replace("SRC", src()), src() + "/" + linkAt));
    std::atomic<int> counter{0};

    QCOMPARE(window.copyDirectory(src(), dst(), true, counter), !loops);
    QCOMPARE(window.installState(), loops ? MainWindow::failed : MainWindow::installing);
    if (!loops)
        QCOMPARE(readFile(dst() + "/" + linkAt + "/o"), QByteArray("other/o"));
}

void tst_CopyDirectory::repeatsOverExistingTree()
{
    QVERIFY(makeTree(src(), {"a", "d/", "d/b"}));
    std::atomic<int> counter{0};
    QVERIFY(window.copyDirectory(src(), dst(), true, counter));
    QCOMPARE(counter.load(), 4);
    QVERIFY(writeFile(src() + "/d/b", "changed"));
    QVERIFY(writeFile(dst() + "/only-here", "kept"));

    counter = 0;
    QVERIFY(window.copyDirectory(src(), dst(), true, counter));
    QCOMPARE(counter.load(), 2);
    QCOMPARE(readFile(dst() + "/d/b"), QByteArray("changed"));
    QCOMPARE(readFile(dst() + "/only-here"), QByteArray("kept"));
    QCOMPARE(window.installState(), MainWindow::installing);
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
    QFETCH(int, stateAfter);
    QFETCH(int, counted);
    QVERIFY(makeTree(src(), source));
    QVERIFY(makeTree(dst(), existing));
    window.setState(MainWindow::EInstallState(stateBefore));
    std::atomic<int> counter{0};

    QVERIFY(!window.copyDirectory(src(), tmpDir.path() + "/" + dstName, cover, counter));
    QCOMPARE(int(window.installState()), stateAfter);
    QCOMPARE(counter.load(), counted);
    if (dstName == "dst/new")
        QVERIFY(QFileInfo(dst() + "/new").isDir());
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
    QFETCH(bool, result);
    QFETCH(QStringList, expected);
    QVERIFY(makeTree(src(), source));
    DFifoGate gate(tmpDir.path() + "/gate");
    QVERIFY(QFile::link(tmpDir.path() + "/gate", src() + "/" + gateAt));
    std::atomic<int> counter{0};
    bool bResult = !result;

    std::thread worker([&]() { bResult = window.copyDirectory(src(), dst(), true, counter); });
    const bool bReached = gate.waitForReader();
    window.onclickCancel();
    gate.releaseReader();
    worker.join();

    QVERIFY(bReached);
    QCOMPARE(window.installState(), MainWindow::cancel);
    QCOMPARE(bResult, result);
    QCOMPARE(treeOf(dst()), expected);
}

QTEST_MAIN(tst_CopyDirectory)
#include "tst_copydirectory.moc"
