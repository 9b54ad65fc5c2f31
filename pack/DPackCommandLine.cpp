#include "DPackCommandLine.h"

#include "DPackConfig.h"

namespace {

enum EOptionFlag { optionRequired = 1, optionPath = 2 };

struct TOptionSpec
{
    const char* name;
    const char* description;
    QString TPackRequest::*member;
    int flags;
    const char* defaultValue;
};

const TOptionSpec g_options[] = {
    {"app", "The application's tree, installed as it is.", &TPackRequest::appTree, optionRequired | optionPath, ""},
    {"desktop", "Its desktop entry (*.desktop).", &TPackRequest::desktopEntry, optionRequired | optionPath, ""},
    {"icon", "Its icon, an image file.", &TPackRequest::icon, optionRequired | optionPath, ""},
    {"name-eng", "Name, in Latin letters.", &TPackRequest::nameEng, optionRequired, ""},
    {"name-chs", "Name, in Chinese.", &TPackRequest::nameChs, 0, ""},
    {"app-version", "Version.", &TPackRequest::version, 0, ""},
    {"publisher", "Publisher.", &TPackRequest::publisher, 0, ""},
    {"website", "Web site.", &TPackRequest::website, 0, ""},
    {"author", "Author.", &TPackRequest::author, 0, ""},
    {"email", "Contact e-mail.", &TPackRequest::email, 0, ""},
    {"parent-dir", "Proposed parent of the install location (default /opt).", &TPackRequest::defaultParentDir, 0,
     "/opt"},
    {"dir", "Directory name below the parent (default: the name).", &TPackRequest::dir, 0, ""},
    {"local-dir", "Prefix that --main-exe begins with.", &TPackRequest::localDir, 0, ""},
    {"main-exe",
     "Main program: --local-dir followed by its path in the tree. Without it the desktop entry's Exec value is "
     "taken as a path in the tree.",
     &TPackRequest::mainExePath, 0, ""},
    {"output", "Directory to write soft/ into; missing or empty.", &TPackRequest::outputDir, optionPath, ""},
    {"appimage", "The installer AppImage to write; must not exist.", &TPackRequest::appImage, optionPath, ""},
    {"update-information", "Update information embedded in the AppImage.", &TPackRequest::updateInformation, 0, ""},
    {"sign-key", "GnuPG key that signs the AppImage.", &TPackRequest::signKey, 0, ""},
    {"arch", "Machine the AppImage is for, one of: " TAVELIN_MACHINES " (default: this one's, " TAVELIN_MACHINE ").",
     &TPackRequest::machine, 0, TAVELIN_MACHINE},
};

const char* const g_config = "config";
const char* const g_verify = "verify";
const char* const g_payloadLayout = "payload-layout";

} // namespace

DPackCommandLine::DPackCommandLine()
{
    parser.setApplicationDescription(QStringLiteral(
        "Packs an application tree into a Tavelin payload (soft/ with the manifest) and its installer AppImage."));
    parser.addHelpOption();
    parser.addOption(QCommandLineOption(QLatin1String(g_config),
                                        QStringLiteral("Package description file: a JSON object of these options' "
                                                       "names and values; paths in it are taken against its "
                                                       "directory. The command line overrides it."),
                                        QStringLiteral("file")));
    for (const TOptionSpec& option : g_options)
        parser.addOption(QCommandLineOption(QLatin1String(option.name), QString::fromUtf8(option.description),
                                            QStringLiteral("value")));
    parser.addOption(QCommandLineOption(QLatin1String(g_verify),
                                        QStringLiteral("Instead of packing: checks the signature embedded in an "
                                                       "AppImage with the key embedded beside it, prints who "
                                                       "signed it and exits 0 when it is good."),
                                        QStringLiteral("file")));
    parser.addOption(QCommandLineOption(QLatin1String(g_payloadLayout),
                                        QStringLiteral("Instead of packing: prints the payload's paths, one "
                                                       "key=path line each, as the AppDir script reads them.")));
}

bool DPackCommandLine::parse(const QStringList& arguments)
{
    if (!parser.parse(arguments))
        return refuse(parser.errorText(), 2);
    bHelpAsked = parser.isSet(QStringLiteral("help"));
    if (bHelpAsked)
        return false;
    if (!parser.positionalArguments().isEmpty())
        return refuse(QStringLiteral("unexpected argument %1").arg(parser.positionalArguments().first()), 2);
    if (parser.isSet(QLatin1String(g_payloadLayout))) {
        if (parser.optionNames().size() > 1)
            return refuse(QStringLiteral("--payload-layout takes no other option"), 2);
        bLayoutAsked = true;
        return true;
    }
    if (parser.isSet(QLatin1String(g_verify))) {
        if (parser.optionNames().size() > 1)
            return refuse(QStringLiteral("--verify takes no other option"), 2);
        strVerifyFile = parser.value(QLatin1String(g_verify));
        return true;
    }
    DPackConfig config;
    QStringList names;
    for (const TOptionSpec& option : g_options)
        names << QLatin1String(option.name);
    if (parser.isSet(QLatin1String(g_config)) && !config.load(parser.value(QLatin1String(g_config)), names))
        return refuse(config.getError(), 1);
    for (const TOptionSpec& option : g_options) {
        const QString strName = QLatin1String(option.name);
        QString strValue = QString::fromUtf8(option.defaultValue);
        if (parser.isSet(strName))
            strValue = parser.value(strName);
        else if (config.contains(strName))
            strValue = (option.flags & optionPath) ? config.path(strName) : config.value(strName);
        if ((option.flags & optionRequired) && strValue.isEmpty())
            return refuseMissing({strName}, config.getFile());
        request.*option.member = strValue;
    }
    if (request.outputDir.isEmpty() && request.appImage.isEmpty())
        return refuseMissing({QStringLiteral("output"), QStringLiteral("appimage")}, config.getFile());
    return true;
}

bool DPackCommandLine::refuse(const QString& strWhy, int status)
{
    strError = strWhy;
    errorStatus = status;
    return false;
}

bool DPackCommandLine::refuseMissing(const QStringList& names, const QString& strConfigFile)
{
    if (strConfigFile.isEmpty())
        return refuse(QStringLiteral("missing --%1").arg(names.join(QStringLiteral(" or --"))), 2);
    return refuse(QStringLiteral("%1: missing \"%2\"").arg(strConfigFile, names.join(QStringLiteral("\" or \""))), 1);
}
