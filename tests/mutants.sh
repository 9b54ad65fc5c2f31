#!/usr/bin/env bash
# Plants known faults in a scratch copy of the product code, one at a time,
# and tells which of them the test suite catches. Each fault changes exactly
# one line; it must build, and the tests named for it must then fail.
#   tests/mutants.sh            every fault
#   tests/mutants.sh REGEX      only the faults whose names match REGEX
#   tests/mutants.sh --list     the faults, without running anything
#   tests/mutants.sh --check [TREE]
#                               only that each fault still applies to TREE
#                               (default this checkout): its file exists and
#                               its edit changes exactly one line. No build,
#                               seconds; tools/test.sh runs it, so a rename
#                               that leaves a fault behind fails the suite.
# The copy and its build live in ${TAVELIN_MUTANTS_DIR:-${TMPDIR:-/tmp}/tavelin-mutants}
# and are kept between runs, so a second run only rebuilds what changed.
# Some faults are caught only as root (private PID and mount namespaces,
# unprivileged children): run it as root, as CI runs the suite.
# Exits non-zero when a fault is missed, does not apply or does not build.
set -uo pipefail
caller=$PWD
cd "$(dirname "$0")/.."
top=$PWD

names=() files=() edits=() tests=()
# mutant NAME FILE SED-EXPRESSION TESTS (a ctest regex, or check-runtime:
# tests/system/check-runtime.sh on the built runtime)
mutant() { names+=("$1"); files+=("$2"); edits+=("$3"); tests+=("$4"); }

# The manifest and the JSON loader
mutant model-keys-case-sensitive biz/model/DAppPackModel.cpp \
    '/define TAVELIN_SET_TEXT/{n;s/strcasecmp(pairKey/strcmp(pairKey/}' \
    'tst_dapppackmodel'
mutant model-nul-not-cut biz/model/DAppPackModel.cpp \
    's/const QByteArray baJson(strJson.toUtf8().constData(), -1);/const QByteArray baJson(strJson.toUtf8());/' \
    'tst_dapppackmodel'
mutant model-section-merged biz/model/DAppPackModel.cpp \
    's/name = bina::jsonval2obj<type>(pairValue);/name.fromJsonString(QString::fromUtf8(QJsonDocument(pairValue.toObject()).toJson()));/' \
    'tst_dapppackmodel'
mutant jsonutil-empty-file-read biz/util/json/JsonUtil.h \
    's/if (strJson.length() <= 0)/if (strJson.length() < 0)/' \
    'tst_dapppackmodel'
# The JSON conversions
mutant bina-ll-reads-numbers biz/util/json/binalib.cpp \
    's/return val.toString(QString()).toLongLong(nullptr, 10);/return val.isDouble() ? static_cast<long long>(val.toDouble()) : val.toString(QString()).toLongLong(nullptr, 10);/' \
    'tst_binalib'
mutant bina-map-skips-nothing biz/util/json/binalib.cpp \
    's/if (ItemT::accepts(jsonValueItem))/if (true || ItemT::accepts(jsonValueItem))/' \
    'tst_binalib'
mutant bina-datetime-drops-ms biz/util/json/binalib.cpp \
    's/return QStringLiteral("yyyy-MM-dd HH:mm:ss.zzz");/return QStringLiteral("yyyy-MM-dd HH:mm:ss");/' \
    'tst_binalib'
mutant bina-str-keeps-nul biz/util/json/binalib.cpp \
    's/return QString::fromUtf8(val.c_str());/return QString::fromStdString(val);/' \
    'tst_binalib'
mutant bina-ui-from-double biz/util/json/binalib.cpp \
    's/return static_cast<unsigned int>(jsonval2int(val));/return static_cast<unsigned int>(val.toDouble(0.0));/' \
    'tst_binalib'
# The page and its labels
mutant page-version-default lib/tavelin-gui/pagebaseinfo.cpp \
    's/textOr(base.version, QStringLiteral("1.0.0"))/textOr(base.version, QStringLiteral("1.0"))/' \
    'tst_dpagebaseinfo'
mutant page-one-trailing-slash lib/tavelin-gui/pagebaseinfo.cpp \
    's/while (strInstallDefaultParentDir.endsWith/if (strInstallDefaultParentDir.endsWith/' \
    'tst_dpagebaseinfo'
mutant page-dir-from-chinese-name lib/tavelin-gui/pagebaseinfo.cpp \
    's/strInstallDir = QString::fromStdString(base.nameEng);/strInstallDir = QString::fromStdString(base.nameChs);/' \
    'tst_dpagebaseinfo'
mutant page-icon-no-fallback lib/tavelin-gui/pagebaseinfo.cpp \
    's/if (pixmap.isNull())/if (!fiAppIcon.isFile())/' \
    'tst_dpagebaseinfo'
mutant page-progress-row-shown lib/tavelin-gui/pagebaseinfo.cpp \
    's/labelProgressBarInstall->setVisible(bShow);/labelProgressBarInstall->setVisible(true);/' \
    'tst_installrun'
# The location judgement and the dialog
mutant location-root-judged-writable lib/tavelin-gui/pagebaseinfo_location.cpp \
    '/if (tmpDir.isEmpty())/{n;s/return false;/return QFileInfo(QStringLiteral("\/")).isWritable();/}' \
    'tst_installlocation'
mutant location-exists-for-writable lib/tavelin-gui/pagebaseinfo_location.cpp \
    's/return fi.isWritable();/return fi.exists();/' \
    'tst_installlocation'
mutant location-library-path-unset lib/tavelin-gui/pagebaseinfo_location.cpp \
    's/qputenv("LD_LIBRARY_PATH", QByteArray());/qunsetenv("LD_LIBRARY_PATH");/' \
    'tst_installlocation'
mutant location-link-not-resolved lib/tavelin-gui/pagebaseinfo_location.cpp \
    's/cacheLastOpenDir = fileInfo.canonicalFilePath();/cacheLastOpenDir = fileInfo.absoluteFilePath();/' \
    'tst_installlocation'
mutant location-dialog-forgets-last lib/tavelin-gui/pagebaseinfo_location.cpp \
    's/if (cacheLastOpenDir.isEmpty())$/if (true)/' \
    'tst_installlocation'
mutant location-deselect-stays lib/tavelin-gui/pagebaseinfo_location.cpp \
    's/QObject::disconnect(editInstallDir/if (false) QObject::disconnect(editInstallDir/' \
    'tst_installlocation'
mutant location-root-sees-row lib/tavelin-gui/pagebaseinfo_location.cpp \
    's/if (DTavelinUtil::getCurrentUser() == QLatin1String("root"))/if (DTavelinUtil::getCurrentUser() == QLatin1String("Root"))/' \
    'tst_installlocation'
# The install run and its states
mutant run-zero-count-accepted lib/tavelin-gui/mainwindow_install.cpp \
    's/install.filesTotalCount < 1)/install.filesTotalCount < 0)/' \
    'tst_installrun'
mutant run-percent-rounds-up lib/tavelin-gui/mainwindow_install.cpp \
    's/const int progressValue = static_cast<int>(dRatio \* 100.0);/const int progressValue = copyFilesCounter * 100 \/ qMax(1, appPackInfo->install.filesTotalCount);/' \
    'tst_installrun'
mutant run-installed-paints-counter lib/tavelin-gui/mainwindow_install.cpp \
    's/paintRunEnd(100, QStringLiteral("安装完成"));/paintRunEnd(progressValue, QStringLiteral("安装完成"));/' \
    'tst_installrun'
mutant run-cancel-also-closes lib/tavelin-gui/mainwindow_install.cpp \
    '/if (flagOfInstallState.compare_exchange_strong(expected, cancel))/{n;s/return;/{}/}' \
    'tst_installrun'
mutant run-override-flag-inverted lib/tavelin-gui/mainwindow_install.cpp \
    's/if (QFileInfo(strTargetInstallDir).isDir())/if (!QFileInfo(strTargetInstallDir).isDir())/' \
    'tst_installrun|tst_desktopfile'
mutant run-close-keeps-running lib/tavelin-gui/mainwindow_install.cpp \
    '/^void MainWindow::closeEvent/,/^}/s/flagOfInstallState.compare_exchange_strong(expected, cancel);/(void)expected;/' \
    'tst_installrun'
mutant run-no-uninstall-script lib/tavelin-gui/mainwindow_install.cpp \
    's/^    createUninstallFile();/    \/\/ createUninstallFile();/' \
    'tst_installrun'
mutant run-button-reenabled lib/tavelin-gui/mainwindow.cpp \
    's/btnCreate->setEnabled(bFlag \&\& flagOfInstallState == pending);/btnCreate->setEnabled(bFlag);/' \
    'tst_installrun'
# The tree copy
mutant copy-hidden-entries lib/tavelin-gui/mainwindow_copy.cpp \
    's/srcDir.entryInfoList(QDir::NoFilter, QDir::NoSort);/srcDir.entryInfoList(QDir::AllEntries | QDir::Hidden, QDir::NoSort);/' \
    'tst_copydirectory'
mutant copy-dirs-not-counted lib/tavelin-gui/mainwindow_copy.cpp \
    '/if (flagOfInstallState != installing)/{n;n;s/++counter;/;/}' \
    'tst_copydirectory|tst_installrun'
mutant copy-cancel-missed lib/tavelin-gui/mainwindow_copy.cpp \
    '/for (const QFileInfo& fileInfo : fileInfoList) {/{n;s/if (flagOfInstallState != installing)/if (flagOfInstallState == failed)/}' \
    'tst_copydirectory|tst_installrun'
mutant copy-no-loop-guard lib/tavelin-gui/mainwindow_copy.cpp \
    's/if (!strCanonicalSrc.isEmpty() \&\& itemsOfCopyPath.contains(strCanonicalSrc)) {/if (false) {/' \
    'tst_copydirectory'
mutant copy-no-replace lib/tavelin-gui/mainwindow_copy.cpp \
    's/if (coverFileIfExist \&\& dstDir.exists(strName) \&\& !dstDir.remove(strName)) {/if (!coverFileIfExist \&\& dstDir.exists(strName) \&\& !dstDir.remove(strName)) {/' \
    'tst_copydirectory|tst_installrun'
mutant copy-mkdir-failure-spares-cancel lib/tavelin-gui/mainwindow_copy.cpp \
    '/if (!dstDir.mkdir(dstDir.absolutePath())) {/{n;s/flagOfInstallState = failed;/markInstallFailed();/}' \
    'tst_copydirectory'
# The desktop entry
mutant desktop-exec-not-trimmed lib/tavelin-gui/mainwindow_desktop.cpp \
    's/const QString strExec = strLine.mid(5).trimmed();/const QString strExec = strLine.mid(5);/' \
    'tst_desktopfile'
mutant desktop-cut-by-mid lib/tavelin-gui/mainwindow_desktop.cpp \
    's/strMainExePath = strMainExePath.right(strMainExePath.size() - strAppDir.size());/strMainExePath = strMainExePath.mid(strAppDir.size());/' \
    'tst_desktopfile'
mutant desktop-quote-left-out lib/tavelin-gui/mainwindow_desktop.cpp \
    '/if (pszExecValue.at(i) == QLatin1Char(.".) \&\& i + 1 < size/{n;s/return i;/return i + 1;/}' \
    'tst_desktopfile'
mutant desktop-no-blank-after-quote lib/tavelin-gui/mainwindow_desktop.cpp \
    's/QStringLiteral("Exec=\\"%1\/%2\\" ")/QStringLiteral("Exec=\\"%1\/%2\\"")/' \
    'tst_desktopfile'
mutant desktop-only-plain-name lib/tavelin-gui/mainwindow_desktop.cpp \
    's/strLine.startsWith(QLatin1String("Name"), Qt::CaseSensitive)/strLine.startsWith(QLatin1String("Name="), Qt::CaseSensitive)/' \
    'tst_desktopfile'
mutant desktop-earlier-entry-replaced lib/tavelin-gui/mainwindow_desktop.cpp \
    's/if (config.getFlagOfOverrideTargetDir())/if (false)/' \
    'tst_desktopfile|tst_installrun'
mutant desktop-lines-not-trimmed lib/tavelin-gui/mainwindow_desktop.cpp \
    's/QString strLine = QString::fromUtf8(baLine).trimmed();/QString strLine = QString::fromUtf8(baLine).chopped(baLine.endsWith("\\n") ? 1 : 0);/' \
    'tst_desktopfile'
# The uninstall script
mutant uninstall-dollar-not-escaped lib/tavelin-gui/mainwindow_uninstall.cpp \
    "s/|| ch == QLatin1Char('\\\$') //" \
    'tst_uninstallscript'
mutant uninstall-tree-path-raw lib/tavelin-gui/mainwindow_uninstall.cpp \
    's/QStringLiteral("rm -rf \\"%1\\"\\n\\n").arg(strDir);/QStringLiteral("rm -rf \\"%1\\"\\n\\n").arg(strTargetInstallDir);/' \
    'tst_uninstallscript'
mutant uninstall-entry-not-checked lib/tavelin-gui/mainwindow_uninstall.cpp \
    's/if (fiDesktop.isFile())/if (!config.getTargetDesktopFilePath().isEmpty())/' \
    'tst_uninstallscript'
mutant uninstall-existing-replaced lib/tavelin-gui/mainwindow_uninstall.cpp \
    's/if (fiUninstall.isFile() || fiUninstall.isDir())/if (fiUninstall.isDir())/' \
    'tst_uninstallscript|tst_installrun'
# The switch to root and the hand-over
mutant root-reaps-any-child lib/tavelin-gui/pagebaseinfo_root.cpp \
    's/pid = waitpid(g_pidRootApp, \&status, WNOHANG);/pid = waitpid(-1, \&status, WNOHANG);/' \
    'tst_change2root'
mutant root-no-guard lib/tavelin-gui/pagebaseinfo_root.cpp \
    's/if (g_pidRootApp != -1)$/if (false)/' \
    'tst_change2root'
mutant root-exec-failure-is-success lib/tavelin-gui/pagebaseinfo_root.cpp \
    's/_exit(127);/_exit(0);/' \
    'tst_change2root'
mutant root-window-stays-minimised lib/tavelin-gui/pagebaseinfo_root.cpp \
    's/g_objMainWindow->showNormal();/g_objMainWindow->show();/' \
    'tst_change2root'
mutant main-kills-negative-pid lib/tavelin-gui/main.cpp \
    's/if (forkPid > 0)/if (forkPid != 0)/' \
    'tst_main'
mutant main-accept-closes lib/tavelin-gui/mainwindow.cpp \
    's/^    Q_UNUSED(result)$/    QWizard::done(result);/' \
    'tst_mainwindow'
mutant config-link-not-resolved lib/tavelin-gui/tavelinconfig.cpp \
    's/srcAppFilesDir = bRelative ? QFileInfo(strFilesDir).canonicalFilePath() : strFilesDir;/srcAppFilesDir = bRelative ? QFileInfo(strFilesDir).absoluteFilePath() : strFilesDir;/' \
    'tst_dtavelinguiconfig'
# The packer
mutant pack-hidden-counted pack/DPackTree.cpp \
    's/dir.entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot, QDir::Name | QDir::IgnoreCase);/dir.entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name | QDir::IgnoreCase);/' \
    'tst_tavelinpack'
mutant pack-loop-not-refused pack/DPackTree.cpp \
    's/if (ancestors.contains(strCanonical)) {/if (false) {/' \
    'tst_tavelinpack'
mutant pack-output-not-checked pack/DPacker.cpp \
    's/if (dirOutput.exists() \&\& !dirOutput.isEmpty(/if (false \&\& !dirOutput.isEmpty(/' \
    'tst_tavelinpack'
mutant pack-config-over-command-line pack/DPackCommandLine.cpp \
    's/if (parser.isSet(strName))$/if (parser.isSet(strName) \&\& !config.contains(strName))/' \
    'tst_tavelinpack'
mutant pack-config-paths-from-cwd pack/DPackConfig.cpp \
    's/QFileInfo(strFile).absoluteDir().filePath(strValue)/QDir::current().filePath(strValue)/' \
    'tst_tavelinpack'
mutant pack-config-any-type pack/DPackConfig.cpp \
    's/if (!it.value().isString())/if (it.value().isNull())/' \
    'tst_tavelinpack'
mutant pack-created-dir-left pack/DPackRun.cpp \
    's/QDir(strCreatedDir).removeRecursively();/QDir().rmdir(strCreatedDir);/' \
    'tst_tavelinpack'
mutant pack-count-files-only pack/DPacker.cpp \
    's/info.install.filesTotalCount = scan.count();/info.install.filesTotalCount = scan.count() - getDirCount();/' \
    'tst_tavelinpack'
mutant pack-bundle-not-checked pack/DPackToolchain.cpp \
    's/if (!fiWizard.isFile() || !fiWizard.isExecutable()) {/if (false) {/' \
    'tst_tavelinpack'
mutant pack-any-machine pack/DPackRun.cpp \
    's/if (!machines.contains(request.machine))/if (false)/' \
    'tst_tavelinpack'
mutant floor-versions-unchecked packaging/check-floor.sh \
    's/\[ -n "\${floor\[\$prefix\]:-}" \] || continue/continue/' \
    'tst_tavelinpack|check-floor-breaches'
# The runtime, judged by its whole-program check ("check-runtime" runs it)
mutant runtime-offset-off-by-one runtime/elffile.c \
    's/uint64_t end = header.e_shoff + (uint64_t)header.e_shnum \* header.e_shentsize;/uint64_t end = header.e_shoff + (uint64_t)header.e_shnum * header.e_shentsize + 1;/' \
    'check-runtime'
mutant runtime-extract-follows-dir-link runtime/extract.c \
    's/const int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;/const int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;/' \
    'check-runtime'
mutant runtime-signal-not-forwarded runtime/launch.c \
    's/kill(child, (int)info.ssi_signo);/kill(child, 0);/' \
    'check-runtime'
mutant runtime-mount-point-left runtime/runtime.c \
    '/^static int mount_or_extract_and_run(/,/^}/{/mount_close(mount);/{n;s/rmdir(dir);/(void)dir;/}}' \
    'check-runtime'
mutant runtime-extract-keeps-old-entry runtime/extract.c \
    's/if (unlinkat(dir, name, 0) != 0 \&\& errno != ENOENT)/if (0)/' \
    'check-runtime'
mutant runtime-readahead-wrong-block runtime/readahead.c \
    's/failed = read_block(ahead, job, block, slot->data, \&size) != 0;/failed = read_block(ahead, job, block ? block - 1 : 0, slot->data, \&size) != 0;/' \
    'check-runtime'
mutant runtime-read-leftover-misplaced runtime/readahead.c \
    's/keep_piece(ahead, ino, start + to, held.data + to,/keep_piece(ahead, ino, start + to, held.data,/' \
    'check-runtime'
mutant runtime-fuse2-helper-unused runtime/mount.c \
    's/names\[\] = {"fusermount3", "fusermount"};/names[] = {"fusermount3"};/' \
    'check-runtime'
mutant runtime-killed-mount-left runtime/mount.c \
    's/mount->guard = start_guard(mount);/mount->guard = -1;/' \
    'check-runtime'

# Writes SOURCE with fault I planted to TARGET and says why the fault does
# not apply, if it does not: SOURCE must exist and the edit must change
# exactly one line of it. The full run and --check both judge by this.
plant() { # index source target
    [ -f "$2" ] || { echo "no such file"; return 1; }
    sed -e "${edits[$1]}" "$2" >"$3" || { echo "sed failed"; return 1; }
    local changed
    changed=$(diff "$2" "$3" | grep -c '^<')
    [ "$changed" -eq 1 ] || { echo "$changed lines changed"; return 1; }
}

# Plants every fault in a throw-away file, never in TREE itself.
check_faults() { # tree
    local target i why bad=0
    target=$(mktemp) || exit 2
    for i in "${!names[@]}"; do
        if ! why=$(plant "$i" "$1/${files[$i]}" "$target"); then
            printf '%-36s %s: %s\n' "${names[$i]}" "${files[$i]}" "$why"
            bad=$((bad + 1))
        fi
    done
    rm -f "$target"
    if [ "$bad" -ne 0 ]; then
        echo "mutants: $bad of ${#names[@]} faults do not apply: each must change exactly one line of its file"
        return 1
    fi
    echo "mutants: ${#names[@]} faults, each changes exactly one line"
}

if [ "${1:-}" = --list ]; then
    for i in "${!names[@]}"; do printf '%-36s %s\n' "${names[$i]}" "${files[$i]}"; done
    exit 0
fi
if [ "${1:-}" = --check ]; then
    tree=${2:-$top}
    [[ $tree = /* ]] || tree=$caller/$tree
    check_faults "$tree"
    exit
fi
filter=${1:-.}

scratch=${TAVELIN_MUTANTS_DIR:-${TMPDIR:-/tmp}/tavelin-mutants}
src=$scratch/src build=$scratch/build
mkdir -p "$src"
# The copy follows the checkout, uncommitted changes included; unchanged
# files keep their time stamps, so the build stays incremental.
git ls-files -co --exclude-standard | while IFS= read -r file; do
    [ -f "$file" ] && echo "$file"
done | sort > "$scratch/files"
while IFS= read -r file; do
    cmp -s "$file" "$src/$file" 2>/dev/null || { mkdir -p "$src/$(dirname "$file")"; cp "$file" "$src/$file"; }
done < "$scratch/files"
(cd "$src" && find . -type f | sed 's|^\./||' | sort | comm -23 - "$scratch/files" | while IFS= read -r gone; do
    rm -f "$gone"
done)

log=$scratch/log
mkdir -p "$log"
build_copy() { nice cmake --build "$build" -j "$(nproc)" >"$log/build.txt" 2>&1; }
cmake -S "$src" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >"$log/configure.txt" 2>&1 \
    || { echo "mutants: cmake failed, see $log/configure.txt" >&2; exit 2; }
build_copy || { echo "mutants: the unchanged copy does not build, see $log/build.txt" >&2; exit 2; }
run_tests() { # regex log
    if [ "$1" = check-runtime ]; then
        nice "$src/tests/system/check-runtime.sh" "$build/runtime/tavelin-runtime" >"$2" 2>&1
    else
        (cd "$build" && nice ctest --timeout 240 -j "$(nproc)" -R "^($1)\$" --output-on-failure) >"$2" 2>&1
    fi
}

caught=0 missed=0 broken=0
for i in "${!names[@]}"; do
    name=${names[$i]} file=${files[$i]}
    [[ $name =~ $filter ]] || continue
    rm -f "$scratch/original"
    [ -f "$src/$file" ] && cp "$src/$file" "$scratch/original"
    if ! why=$(plant "$i" "$scratch/original" "$src/$file"); then
        verdict="NOT APPLIED ($why)"
        broken=$((broken + 1))
    elif ! build_copy; then
        verdict="DOES NOT BUILD (see $log/$name.build.txt)"
        cp "$log/build.txt" "$log/$name.build.txt"
        broken=$((broken + 1))
    elif run_tests "${tests[$i]}" "$log/$name.txt"; then
        verdict="MISSED by ${tests[$i]}"
        missed=$((missed + 1))
    else
        verdict=caught
        caught=$((caught + 1))
    fi
    # A fresh time stamp, so the next build compiles the restored file.
    [ -f "$scratch/original" ] && cp "$scratch/original" "$src/$file"
    printf '%-36s %s\n' "$name" "$verdict"
done
build_copy || true

echo "mutants: $caught caught, $missed missed, $broken not applied or not built (logs in $log)"
[ $((missed + broken)) -eq 0 ]
