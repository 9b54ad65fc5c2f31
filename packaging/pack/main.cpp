#include "DPackCommandLine.h"
#include "DPacker.h"

#include <QCoreApplication>

#include <cstdio>

namespace {

void printLine(FILE* stream, const QString& strPrefix, const QString& strText)
{
    std::fprintf(stream, "tavelin-pack: %s%s\n", strPrefix.toLocal8Bit().constData(), strText.toLocal8Bit().constData());
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    DPackCommandLine commandLine;
    if (!commandLine.parse(app.arguments())) {
        if (commandLine.isHelpAsked()) {
            std::fputs(commandLine.helpText().toLocal8Bit().constData(), stdout);
            return 0;
        }
        printLine(stderr, QStringLiteral("error: "), commandLine.getError());
        return 2;
    }
    DPacker packer;
    const bool bPacked = packer.pack(commandLine.getRequest());
    for (const QString& strWarning : packer.getWarnings())
        printLine(stderr, QStringLiteral("warning: "), strWarning);
    if (!bPacked) {
        printLine(stderr, QStringLiteral("error: "), packer.getError());
        return 1;
    }
    printLine(stdout, QString(), QStringLiteral("payload written to %1/soft, %2 entries to install")
                                     .arg(commandLine.getRequest().outputDir)
                                     .arg(packer.getFilesTotalCount()));
    return 0;
}
