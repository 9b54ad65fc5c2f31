#include "gentree.h"

#include <QCoreApplication>
#include <QStringList>
#include <QTextStream>

// Standalone payload generator: tavelin-bench-gentree [flags] APPDIR
int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QTextStream out(stdout);
    const QStringList itemsOfArg = QCoreApplication::arguments().mid(1);
    TBenchTreeSpec spec;
    for (int i = 0; i + 1 < itemsOfArg.size(); i += 2) {
        if (!parseBenchTreeFlag(spec, itemsOfArg.at(i), itemsOfArg.at(i + 1))) {
            out << "usage: tavelin-bench-gentree [flags] APPDIR\n" << benchTreeFlagsHelp();
            return 2;
        }
    }
    if (itemsOfArg.size() % 2 != 1) {
        out << "usage: tavelin-bench-gentree [flags] APPDIR\n" << benchTreeFlagsHelp();
        return 2;
    }
    TBenchTreeInfo info;
    if (!generateBenchTree(spec, itemsOfArg.last(), info)) {
        out << "cannot write the tree below " << itemsOfArg.last() << "\n";
        return 1;
    }
    out << info.fileCount << " files, " << info.dirCount << " directories below " << info.filesDir << "\n";
    return 0;
}
