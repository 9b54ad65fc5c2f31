#include "DPackCommandLine.h"
#include "DPackRun.h"
#include "DPackVerify.h"

#include <QCoreApplication>

#include <cstdio>

namespace {

void printLine(FILE* stream, const QString& strPrefix, const QString& strText)
{
    std::fprintf(stream, "tavelin-pack: %s%s\n", strPrefix.toLocal8Bit().constData(), strText.toLocal8Bit().constData());
    std::fflush(stream);
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
        return commandLine.getErrorStatus();
    }
    if (commandLine.isLayoutAsked()) {
        std::fputs(DPacker::payloadLayout().toLocal8Bit().constData(), stdout);
        return 0;
    }
    if (!commandLine.getVerifyFile().isEmpty()) {
        DPackVerify verify;
        if (!verify.verify(commandLine.getVerifyFile())) {
            printLine(stderr, QStringLiteral("error: "), verify.getError());
            return 1;
        }
        printLine(stdout, QStringLiteral("good signature by "), verify.getSigner());
        return 0;
    }
    DPackRun run(DPackToolchain::locate(QCoreApplication::applicationDirPath(), commandLine.getRequest().machine),
                 [](const QString& strLine) { printLine(stdout, QString(), strLine); });
    const bool bDone = run.run(commandLine.getRequest());
    for (const QString& strWarning : run.getWarnings())
        printLine(stderr, QStringLiteral("warning: "), strWarning);
    if (!bDone) {
        printLine(stderr, QStringLiteral("error: "), run.getError());
        return 1;
    }
    printLine(stdout, QString(), run.summary());
    return 0;
}
