#include "gentree.h"

#include <QDir>
#include <QFile>
#include <QStringList>

#include <random>

namespace {

const char* const kDesktopFile = "tavelin-bench.desktop";

// Incompressible content, so that no layer can shortcut the copy.
bool writeRandomFile(const QString& strPath, qint64 size, std::mt19937_64& rng)
{
    QFile file(strPath);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    QByteArray baBlock(1024 * 1024, Qt::Uninitialized);
    qint64 left = size;
    while (left > 0) {
        const int chunk = static_cast<int>(qMin<qint64>(left, baBlock.size()));
        auto* words = reinterpret_cast<quint64*>(baBlock.data());
        for (int i = 0; i < (chunk + 7) / 8 && i < baBlock.size() / 8; ++i)
            words[i] = rng();
        if (file.write(baBlock.constData(), chunk) != chunk)
            return false;
        left -= chunk;
    }
    return true;
}

// Breadth-first list of the nested directories, relative to soft/app.
QStringList nestedDirs(int depth, int fanout)
{
    QStringList itemsOfDir;
    QStringList itemsOfLevel{QString()};
    for (int level = 0; level < depth; ++level) {
        QStringList itemsOfNext;
        for (const QString& strParent : itemsOfLevel)
            for (int i = 0; i < fanout; ++i)
                itemsOfNext << strParent + QStringLiteral("d%1%2/").arg(level).arg(i);
        itemsOfDir << itemsOfNext;
        itemsOfLevel = itemsOfNext;
    }
    return itemsOfDir;
}

bool writeText(const QString& strPath, const QByteArray& baText)
{
    QFile file(strPath);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(baText) == baText.size();
}

bool writeManifestAndDesktop(const QString& strAppDir, int filesTotalCount)
{
    const QByteArray baManifest = QStringLiteral(
        "{\"base\":{\"nameEng\":\"Tavelin Bench\",\"nameChs\":\"基准\",\"version\":\"1.0\"},"
        "\"install\":{\"dir\":\"tavelin-bench\",\"filesTotalCount\":%1,\"desktopFile\":\"%2\"},"
        "\"files\":{\"mainExePath\":\"bin/bench\"}}\n")
        .arg(filesTotalCount).arg(QLatin1String(kDesktopFile)).toUtf8();
    const QString strDesktopDir = strAppDir + QStringLiteral("/soft/desktop/share/applications");
    return QDir().mkpath(strDesktopDir)
        && writeText(strAppDir + QStringLiteral("/soft/mainifest.json"), baManifest)
        && writeText(strDesktopDir + QLatin1Char('/') + QLatin1String(kDesktopFile),
                     "[Desktop Entry]\nType=Application\nName=Tavelin Bench\nExec=bin/bench %U\n");
}

bool writeSmallFiles(const TBenchTreeSpec& spec, const QString& strFilesDir, const QStringList& itemsOfDir,
                     std::mt19937_64& rng)
{
    std::uniform_int_distribution<qint64> sizes(spec.smallMinBytes, qMax(spec.smallMinBytes, spec.smallMaxBytes));
    for (int i = 0; i < spec.smallCount; ++i) {
        const QString strDir = itemsOfDir.isEmpty() ? QString() : itemsOfDir.at(i % itemsOfDir.size());
        const QString strPath = QStringLiteral("%1/%2f%3.dat").arg(strFilesDir, strDir).arg(i, 5, 10, QLatin1Char('0'));
        if (!writeRandomFile(strPath, sizes(rng), rng))
            return false;
    }
    return true;
}

} // namespace

bool parseBenchTreeFlag(TBenchTreeSpec& spec, const QString& strFlag, const QString& strValue)
{
    bool bOk = false;
    const qint64 value = strValue.toLongLong(&bOk);
    if (!bOk || value < 0)
        return false;
    if (strFlag == QLatin1String("--small")) spec.smallCount = static_cast<int>(value);
    else if (strFlag == QLatin1String("--small-min")) spec.smallMinBytes = value;
    else if (strFlag == QLatin1String("--small-max")) spec.smallMaxBytes = value;
    else if (strFlag == QLatin1String("--depth")) spec.depth = static_cast<int>(value);
    else if (strFlag == QLatin1String("--fanout")) spec.fanout = static_cast<int>(value);
    else if (strFlag == QLatin1String("--medium")) spec.mediumCount = static_cast<int>(value);
    else if (strFlag == QLatin1String("--medium-kib")) spec.mediumBytes = value * 1024;
    else if (strFlag == QLatin1String("--large-mib")) spec.largeBytes = value * 1024 * 1024;
    else return false;
    return true;
}

QString benchTreeFlagsHelp()
{
    const TBenchTreeSpec spec;
    return QStringLiteral("  --small N        small files (%1)\n"
                          "  --small-min B    smallest small file in bytes (%2)\n"
                          "  --small-max B    largest small file in bytes (%3)\n"
                          "  --depth D        levels of nested directories (%4)\n"
                          "  --fanout F       subdirectories per directory (%5)\n"
                          "  --medium N       medium files (%6)\n"
                          "  --medium-kib K   size of a medium file in KiB (%7)\n"
                          "  --large-mib M    size of the one large file in MiB (%8)\n")
        .arg(spec.smallCount).arg(spec.smallMinBytes).arg(spec.smallMaxBytes).arg(spec.depth)
        .arg(spec.fanout).arg(spec.mediumCount).arg(spec.mediumBytes / 1024).arg(spec.largeBytes / 1024 / 1024);
}

bool generateBenchTree(const TBenchTreeSpec& spec, const QString& strAppDir, TBenchTreeInfo& info)
{
    std::mt19937_64 rng(20261123);
    info.appDir = QDir(strAppDir).absolutePath();
    info.filesDir = info.appDir + QStringLiteral("/soft/app");
    const QStringList itemsOfDir = nestedDirs(spec.depth, spec.fanout);
    for (const QString& strDir : itemsOfDir)
        if (!QDir().mkpath(info.filesDir + QLatin1Char('/') + strDir))
            return false;
    if (!writeSmallFiles(spec, info.filesDir, itemsOfDir, rng))
        return false;

    const QString strMediumDir = info.filesDir + QStringLiteral("/media");
    if (spec.mediumCount > 0 && !QDir().mkpath(strMediumDir))
        return false;
    for (int i = 0; i < spec.mediumCount; ++i) {
        info.mediumFile = QStringLiteral("%1/m%2.bin").arg(strMediumDir).arg(i, 3, 10, QLatin1Char('0'));
        if (!writeRandomFile(info.mediumFile, spec.mediumBytes, rng))
            return false;
    }
    // Named to sort last, so that a cancel in the tree lands on small and medium files.
    info.largeFile = info.filesDir + QStringLiteral("/zz-large.bin");
    if (spec.largeBytes > 0 && !writeRandomFile(info.largeFile, spec.largeBytes, rng))
        return false;

    info.fileCount = spec.smallCount + spec.mediumCount + (spec.largeBytes > 0 ? 1 : 0);
    info.dirCount = itemsOfDir.size() + (spec.mediumCount > 0 ? 1 : 0);
    return writeManifestAndDesktop(info.appDir, info.fileCount + info.dirCount);
}
