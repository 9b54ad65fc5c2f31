#pragma once

#include "DPacker.h"

#include <QCommandLineParser>
#include <QStringList>

/// The packer's settings: each long option fills one member of TPackRequest;
/// --config names a file that sets the same keys, and the command line
/// overrides it.
class DPackCommandLine
{
public:
    DPackCommandLine();

    /// False with getError() set when an option is missing or unknown or the
    /// file is refused; isHelpAsked() tells a plain request for help.
    bool parse(const QStringList& arguments);

    TPackRequest getRequest() const { return request; }
    /// The AppImage that --verify names, or empty for a pack.
    QString getVerifyFile() const { return strVerifyFile; }
    QString getError() const { return strError; }
    /// The exit status for the error: 2 for the command line, 1 for the file.
    int getErrorStatus() const { return errorStatus; }
    bool isHelpAsked() const { return bHelpAsked; }
    /// --payload-layout: print the layout instead of packing.
    bool isLayoutAsked() const { return bLayoutAsked; }
    QString helpText() const { return parser.helpText(); }

private:
    bool refuse(const QString& strError, int status);
    bool refuseMissing(const QStringList& names, const QString& strConfigFile);

    QCommandLineParser parser;
    TPackRequest request;
    QString strVerifyFile;
    QString strError;
    int errorStatus = 0;
    bool bHelpAsked = false;
    bool bLayoutAsked = false;
};
