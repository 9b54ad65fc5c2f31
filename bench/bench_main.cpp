#include "benchtable.h"
#include "gentree.h"
#include "mainwindow.h"

#include <QApplication>
#include <QDir>
#include <QFile>

#include <pwd.h>
#include <unistd.h>

// Install benchmarks of the real engine, headless. Prints rows of a Markdown
// table; tools/bench.sh prints its head and runs this in a private mount
// namespace with a throw-away HOME.

namespace {

bool parseOptions(const QStringList& itemsOfArg, TBenchOptions& options)
{
    for (int i = 0; i + 1 < itemsOfArg.size(); i += 2) {
        const QString& strFlag = itemsOfArg.at(i);
        const QString& strValue = itemsOfArg.at(i + 1);
        if (strFlag == QLatin1String("--runs")) options.runs = qMax(1, strValue.toInt());
        else if (strFlag == QLatin1String("--cancel-runs")) options.cancelRuns = qMax(1, strValue.toInt());
        else if (strFlag == QLatin1String("--workdir")) options.strWorkDir = strValue;
        else if (strFlag == QLatin1String("--cache")) options.strCache = strValue;
        else if (!parseBenchTreeFlag(options.tree, strFlag, strValue)) return false;
    }
    return itemsOfArg.size() % 2 == 0 && !options.strWorkDir.isEmpty();
}

bool isMountPoint(const QString& strPath)
{
    QFile fileMountInfo(QStringLiteral("/proc/self/mountinfo"));
    if (!fileMountInfo.open(QIODevice::ReadOnly))
        return false;
    for (const QByteArray& baLine : fileMountInfo.readAll().split('\n')) {
        const QList<QByteArray> itemsOfField = baLine.split(' ');
        if (itemsOfField.size() > 4 && QString::fromLocal8Bit(itemsOfField.at(4)) == strPath)
            return true;
    }
    return false;
}

// The run writes a desktop entry: as root into /usr/share/applications,
// otherwise below HOME. Neither may be the real one.
QString unsafeReason()
{
    if (geteuid() == 0) {
        if (!isMountPoint(QStringLiteral("/usr/share/applications")))
            return QStringLiteral("as root, /usr/share/applications must be a private mount (see tools/bench.sh)");
        return QString();
    }
    const struct passwd* pw = getpwuid(geteuid());
    if (pw && QDir(QDir::homePath()) == QDir(QString::fromLocal8Bit(pw->pw_dir)))
        return QStringLiteral("HOME must point at a throw-away directory");
    return QString();
}

} // namespace

int main(int argc, char* argv[])
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    TBenchOptions options;
    if (!parseOptions(QApplication::arguments().mid(1), options)) {
        err() << "usage: tavelin-bench --workdir DIR [--runs R] [--cancel-runs C] [--cache auto|cold|warm]\n"
              << benchTreeFlagsHelp();
        return 2;
    }
    const QString strUnsafe = unsafeReason();
    if (!strUnsafe.isEmpty()) {
        err() << "tavelin-bench: refusing to run: " << strUnsafe << "\n";
        return 2;
    }

    TBenchTreeInfo info;
    err() << "generating the payload below " << options.strWorkDir << "\n" << Qt::flush;
    if (!generateBenchTree(options.tree, options.strWorkDir + QStringLiteral("/payload"), info)) {
        err() << "cannot generate the payload\n";
        return 1;
    }
    qputenv("APPDIR", QFile::encodeName(info.appDir));
    DTavelinGuiConfig::getInstance().init();

    // The large file comes last: it may drop the page cache.
    const bool bOk = benchTree(options, info) && benchCancel(options, info) && benchLarge(options, info);
    QDir(info.appDir).removeRecursively();
    return bOk ? 0 : 1;
}
