#include "DPackCommandLine.h"

DPackCommandLine::DPackCommandLine()
{
    parser.setApplicationDescription(
        QStringLiteral("Packs an application tree into a Tavelin payload (soft/ with the manifest)."));
    parser.addHelpOption();
    addOption(QStringLiteral("app"), QStringLiteral("The application's tree, installed as it is."), &TPackRequest::appTree);
    addOption(QStringLiteral("desktop"), QStringLiteral("Its desktop entry (*.desktop)."), &TPackRequest::desktopEntry);
    addOption(QStringLiteral("icon"), QStringLiteral("Its icon, an image file."), &TPackRequest::icon);
    addOption(QStringLiteral("name-eng"), QStringLiteral("Name, in Latin letters."), &TPackRequest::nameEng);
    addOption(QStringLiteral("name-chs"), QStringLiteral("Name, in Chinese."), &TPackRequest::nameChs, QStringLiteral(""));
    addOption(QStringLiteral("app-version"), QStringLiteral("Version."), &TPackRequest::version, QStringLiteral(""));
    addOption(QStringLiteral("publisher"), QStringLiteral("Publisher."), &TPackRequest::publisher, QStringLiteral(""));
    addOption(QStringLiteral("website"), QStringLiteral("Web site."), &TPackRequest::website, QStringLiteral(""));
    addOption(QStringLiteral("author"), QStringLiteral("Author."), &TPackRequest::author, QStringLiteral(""));
    addOption(QStringLiteral("email"), QStringLiteral("Contact e-mail."), &TPackRequest::email, QStringLiteral(""));
    addOption(QStringLiteral("parent-dir"), QStringLiteral("Proposed parent of the install location."),
              &TPackRequest::defaultParentDir, QStringLiteral("/opt"));
    addOption(QStringLiteral("dir"), QStringLiteral("Directory name below the parent (default: the name)."),
              &TPackRequest::dir, QStringLiteral(""));
    addOption(QStringLiteral("local-dir"), QStringLiteral("Prefix that --main-exe begins with."), &TPackRequest::localDir,
              QStringLiteral(""));
    addOption(QStringLiteral("main-exe"),
              QStringLiteral("Main program: --local-dir followed by its path in the tree. Without it the desktop "
                             "entry's Exec value is taken as a path in the tree."),
              &TPackRequest::mainExePath, QStringLiteral(""));
    addOption(QStringLiteral("output"), QStringLiteral("Directory to write soft/ into; missing or empty."),
              &TPackRequest::outputDir);
}

void DPackCommandLine::addOption(const QString& strName, const QString& strDescription, QString TPackRequest::*member,
                                 const QString& strDefault)
{
    parser.addOption(QCommandLineOption(strName, strDescription, QStringLiteral("value"), strDefault));
    bindings.append({strName, member, strDefault.isNull()});
}

bool DPackCommandLine::parse(const QStringList& arguments)
{
    if (!parser.parse(arguments)) {
        strError = parser.errorText();
        return false;
    }
    bHelpAsked = parser.isSet(QStringLiteral("help"));
    if (bHelpAsked)
        return false;
    if (!parser.positionalArguments().isEmpty()) {
        strError = QStringLiteral("unexpected argument %1").arg(parser.positionalArguments().first());
        return false;
    }
    for (const TBinding& binding : bindings) {
        const QString strValue = parser.value(binding.name);
        if (binding.bRequired && strValue.isEmpty()) {
            strError = QStringLiteral("missing --%1").arg(binding.name);
            return false;
        }
        request.*binding.member = strValue;
    }
    return true;
}
