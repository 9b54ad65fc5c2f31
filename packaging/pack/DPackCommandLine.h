#pragma once

#include "DPacker.h"

#include <QCommandLineParser>
#include <QStringList>

/// The packer's command line: each option fills one member of TPackRequest.
class DPackCommandLine
{
public:
    DPackCommandLine();

    /// False with getError() set when an option is missing or unknown;
    /// isHelpAsked() tells a plain request for help.
    bool parse(const QStringList& arguments);

    TPackRequest getRequest() const { return request; }
    QString getError() const { return strError; }
    bool isHelpAsked() const { return bHelpAsked; }
    QString helpText() const { return parser.helpText(); }

private:
    void addOption(const QString& strName, const QString& strDescription, QString TPackRequest::*member,
                   const QString& strDefault = QString());

    struct TBinding
    {
        QString name;
        QString TPackRequest::*member;
        bool bRequired;
    };

    QCommandLineParser parser;
    QList<TBinding> bindings;
    TPackRequest request;
    QString strError;
    bool bHelpAsked = false;
};
