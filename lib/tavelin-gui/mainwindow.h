#pragma once

#include "DAppPackModel.h"

#include <QString>
#include <QStringList>
#include <QTimer>
#include <QVector>
#include <QWizard>
#include <QWizardPage>

#include <atomic>

class QLabel;
class QLineEdit;
class QProgressBar;
class QPushButton;
class DPageBaseInfo;

/// Who runs the wizard: the effective user, not the real one.
class DTavelinUtil
{
public:
    static unsigned int getCurrentUserId();
    static QString getCurrentUser();
};

/// The one configuration of a process: where the payload lies, the loaded
/// manifest and the chosen install location. The payload layout under soft/
/// lives here and nowhere else.
class DTavelinGuiConfig
{
public:
    static DTavelinGuiConfig& getInstance();
    DTavelinGuiConfig(const DTavelinGuiConfig&) = delete;
    DTavelinGuiConfig& operator=(const DTavelinGuiConfig&) = delete;
    ~DTavelinGuiConfig();

    void init();

    /// The payload's layout, relative to the AppDir; the packer writes it
    /// from these too.
    static QString getPayloadDir();
    static QString getManifestPath();
    static QString getAppFilesPath();
    static QString getDesktopDirPath();
    static QString getImagesDirPath();

    TAppPackInfo* getAppPackInfo();
    QString getEnvAppImage() const;
    void setEnvAppImage(const QString& value);
    QString getEnvAppDir() const;
    void setEnvAppDir(const QString& value);
    QString getTargetInstallDir() const;
    void setTargetInstallDir(const QString& value);
    QString getSrcAppFilesDir() const;
    QString getSrcAppDesktopDir() const;
    void setFlagOfOverrideTargetDir(bool bFlag);
    bool getFlagOfOverrideTargetDir() const;
    void setTargetDesktopFilePath(const QString& value);
    QString getTargetDesktopFilePath() const;

protected:
    DTavelinGuiConfig();

private:
    TAppPackInfo* appPackInfo;
    QString envAppImage;
    QString envAppDir;
    QString targetInstallDir;
    bool bFlagOfOverrideTargetDir;
    QString srcAppFilesDir;
    QString srcAppDesktopDir;
    QString targetDesktopFilePath;
};

/// An entry of the wizard's page list; the page belongs to its Qt parent.
struct TAppPackPageInfo
{
    QString sideMsg;
    QString title;
    QString subtitle;
    DPageBaseInfo* pageObj = nullptr;
};

class MainWindow : public QWizard
{
    Q_OBJECT

public:
    enum EInstallState {
        pending = 0,
        installing = 1,
        installed = 2,
        failed = 3,
        cancel = 4,
    };

    explicit MainWindow(QWidget* parent = nullptr);
    ~MainWindow() override;

    virtual void init();
    virtual void initBiz();
    virtual void closeBiz();
    virtual void updateInstallConfig();
    void enableCreate(bool bFlag);

    // Install stages, run on the worker thread.
    bool copyDirectory(const QString& srcPath, const QString& dstPath, bool coverFileIfExist,
                       std::atomic<int>& counter);
    bool copyDesktopFile(const QString& srcPath, const QString& dstPath);
    static int calcFieldCodesPos(const QString& pszExecValue);
    void createUninstallFile();

    EInstallState installState() const { return flagOfInstallState; }

protected slots:
    void onclickCreate();
    void onclickCancel();
    void timerProcRefresh();

protected:
    virtual void initPageInfo();
    virtual void initWidgets();
    virtual void initConnect();
    void showEvent(QShowEvent* event) override;
    void closeEvent(QCloseEvent* event) override;
    void done(int result) override;

    static void* threadProcHandle(void* arg);
    void threadProcHandleObj();
    bool runInstallStages();

    QVector<TAppPackPageInfo> itemsOfPage;
    QPushButton* btnCreate = nullptr;
    QPushButton* btnCancel = nullptr;
    QTimer timerRefresh;
    // Shared with the worker; atomics give the whole-word reads and writes
    // the run relies on.
    std::atomic<EInstallState> flagOfInstallState;
    std::atomic<int> copyFilesCounter;
    DPageBaseInfo* pageInfoSet = nullptr;

private:
    void resolveRelativeInstallDir();
    void startWorker();
    void waitForWorker();
    void paintRunEnd(int value, const QString& strText);
    void markInstallFailed();
    bool copyDirectoryEntries(const QString& srcPath, const QString& dstPath, bool coverFileIfExist,
                              std::atomic<int>& counter);

    // Install engine state of our own (see mainwindow_install.cpp).
    std::atomic<bool> flagWorkerRunning{false};
    // Canonical paths of the directories the copy is inside, worker only.
    QStringList itemsOfCopyPath;
};

class DPageBaseInfo : public QWizardPage
{
    Q_OBJECT
    // A run reaches into the location row and the progress row.
    friend class MainWindow;

public:
    explicit DPageBaseInfo(QWidget* parent = nullptr);
    ~DPageBaseInfo() override;

    virtual void init();
    virtual void closeBiz();
    virtual void updateInstallProgress(bool bShow, int value, const QString& text);
    virtual void updateCreateState();
    virtual void updateChange2RootTip(bool bShow);

protected slots:
    void onclickSelInstallDir();
    void slotDeselectEditInstallDir();
    void onclickChange2Root();

protected:
    virtual void initWidgets();
    virtual void initConnect();
    virtual void initBiz();
    void setVisible(bool visible) override;

    QLabel* labelAppIcon = nullptr;
    QLabel* labelAppNameChs = nullptr;
    QLabel* labelAppNameEng = nullptr;
    QLabel* labelAppVersion = nullptr;
    QLabel* labelAppPublisher = nullptr;
    QLabel* labelAppWebsite = nullptr;
    QLabel* labelAppAuthor = nullptr;
    QLabel* labelAppEmail = nullptr;
    QLineEdit* editInstallDir = nullptr;
    QPushButton* btnSelInstallDir = nullptr;
    QString cacheLastOpenDir;
    QLabel* labelProgressBarInstall = nullptr;
    QProgressBar* progressBarInstall = nullptr;
    QLabel* labelChange2RootTip01 = nullptr;
    QPushButton* btnChange2Root = nullptr;
    QLabel* labelChange2RootTip02 = nullptr;
};

/// Empties LD_LIBRARY_PATH for its lifetime, so that a native dialog loads
/// the desktop's libraries rather than the bundle's.
class DClearLibraryPath
{
public:
    DClearLibraryPath();
    ~DClearLibraryPath();
    DClearLibraryPath(const DClearLibraryPath&) = delete;
    DClearLibraryPath& operator=(const DClearLibraryPath&) = delete;

private:
    QString strLibraryPath;
};
