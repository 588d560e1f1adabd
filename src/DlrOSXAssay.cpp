// The survey: the system profiler's property list, the product folders with
// their version banners and build-id files, and free disk space.

#include "DlrMachineAssay.h"

#include "DlrConstants.h"
#include "DlrPlatform.h"
#include "DlrProfileReader.h"
#include "DlrQtCompat.h"
#include "kelProfileHandler.h"

#include <QDebug>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegExp>
#include <QTextCodec>
#include <QTextDecoder>
#include <QTimer>
#include <QXmlSimpleReader>

#include <algorithm>
#include <optional>

#include <signal.h>
#include <unistd.h>

namespace {

// A product executable gets this long to print its banner.
constexpr int kProbeWaitMs = 1000;

// Probes running at once: 200 silent folders end in two rounds, and the
// probes' pipes stay far below the usual limit of 1024 open files.
constexpr int kProbesAtOnce = 100;

// The profiler prints its whole document once it has gathered the facts;
// silence this long means it is stuck, and the survey goes on without it.
constexpr int kProfilerSilenceMs = 15000;

// After its document has been read the profiler has this long to exit.
constexpr int kProfilerExitMs = 1000;

// Feeds the parser piece by piece. Decoding keeps its state from one piece
// to the next, so a character cut in two by a read comes out whole; a piece
// that completes no character is not the end of the document (Qt's reader
// takes empty data for that), the next one is read at once. Once the root
// element has ended no more is asked for: a profiler that keeps its output
// open after the document would otherwise hold the reader until it gives up.
class DlrPieceInput : public QXmlInputSource
{
public:
    DlrPieceInput(const std::function<QByteArray()>& next, const kelProfileHandler& handler)
        : next(next)
        , handler(handler)
        // UTF-8. Qt's decoder drops a U+FEFF whose bytes a read cut in two
        // as if it began the stream; the mark is taken off here instead.
        , decoder(QTextCodec::codecForMib(106)->makeDecoder(QTextCodec::IgnoreHeader))
    {
    }

    void fetchData() override
    {
        QString text;
        while (text.isEmpty() && !handler.DocumentEnded()) {
            const QByteArray bytes = next();
            if (bytes.isEmpty())
                break;
            text = decoder->toUnicode(bytes);
            // One byte-order mark may open the output; any later U+FEFF is
            // a character of the document.
            if (!started && !text.isEmpty()) {
                started = true;
                if (text.at(0) == QChar(0xfeff))
                    text.remove(0, 1);
            }
        }
        setData(text);
    }

private:
    const std::function<QByteArray()>& next;
    const kelProfileHandler& handler;
    std::unique_ptr<QTextDecoder> decoder;
    bool started = false;
};

// A version probe in a process group of its own, so that a probe past its
// time goes together with whatever it started (a renderer waiting on a
// licence server through a helper, say).
class DlrProbeProcess : public DlrGroupLeaderProcess
{
public:
    using DlrGroupLeaderProcess::DlrGroupLeaderProcess;

    // Runs from the probe's start; a probe that ends while it runs answered.
    QTimer clock;

    void Stop()
    {
        clock.stop();
        if (state() == QProcess::NotRunning)
            return;
        // 0 would be the survey's own group.
        if (processId() > 0)
            ::kill(-pid_t(processId()), SIGKILL);
        kill();
    }
};

// The version probes of one survey, side by side: at most kProbesAtOnce at
// a time, each allowed kProbeWaitMs from its own start. The window keeps
// painting meanwhile (user input waits), and Run() returns only once every
// probe has ended, been killed and been reaped.
class DlrProbeRun : public QObject
{
public:
    explicit DlrProbeRun(const QStringList& programs)
        : programs(programs)
    {
    }

    // What each probe that answered in its time wrote to standard error.
    QHash<QString, std::optional<QByteArray>> Run()
    {
        startMore();
        if (running > 0)
            loop.exec(QEventLoop::ExcludeUserInputEvents);
        // Only an application that is quitting ends the loop early: start
        // nothing more, and end what still runs.
        next = programs.size();
        for (DlrProbeProcess* probe : qAsConst(probes)) {
            probe->Stop();
            probe->waitForFinished(-1);
        }
        return answers;
    }

private:
    void startMore()
    {
        // A probe that cannot start ends inside start(), in this loop.
        if (starting)
            return;
        starting = true;
        while (running < kProbesAtOnce && next < programs.size())
            start(programs.at(next++));
        starting = false;
        if (running == 0)
            loop.quit();
    }

    void start(const QString& program)
    {
        auto* probe = new DlrProbeProcess(this);
        probes << probe;
        answers.insert(program, std::nullopt);
        ++running;
        const auto ended = [this, probe] {
            probe->clock.stop();
            --running;
            startMore();
        };
        probe->clock.setSingleShot(true);
        connect(&probe->clock, &QTimer::timeout, probe, &DlrProbeProcess::Stop);
        connect(probe, qOverload<int, QProcess::ExitStatus>(&QProcess::finished), this, [=] {
            if (probe->clock.isActive())
                answers.insert(program, probe->readAllStandardError());
            ended();
        });
        connect(probe, &QProcess::errorOccurred, this, [=](QProcess::ProcessError error) {
            if (error == QProcess::FailedToStart)
                ended();
        });
        // The banner is on standard error; whatever goes to standard output
        // is not wanted and must not pile up in memory.
        probe->setStandardOutputFile(QProcess::nullDevice());
        probe->clock.start(kProbeWaitMs);
        probe->start(program, {QStringLiteral("-version")}, QIODevice::ReadWrite);
    }

    const QStringList programs;
    QList<DlrProbeProcess*> probes; // children of this run
    QHash<QString, std::optional<QByteArray>> answers;
    QEventLoop loop;
    int next = 0;
    int running = 0;
    bool starting = false;
};

// Text a tool wrote, up to the first NUL byte.
QString textUpToNul(const QByteArray& bytes)
{
    const int nul = bytes.indexOf('\0');
    return QString::fromUtf8(nul < 0 ? bytes : bytes.left(nul));
}

// Build id, major and minor number from a banner or build-id file. True
// when any of them is missing or does not fit an int.
bool readBuildAndVersion(const QString& text, const QString& buildIdPattern, int& buildId, int& major,
                         int& minor, QString* suffix)
{
    QRegExp buildIdRx(buildIdPattern, Qt::CaseSensitive, QRegExp::RegExp);
    if (buildIdRx.indexIn(text) < 0) {
        qDebug().noquote() << "no build id in output" << text;
        return true;
    }
    QRegExp versionRx(QStringLiteral("Velluma\\s([1-9][0-9])\\.([0-9])([\\S]+)?"), Qt::CaseSensitive,
                      QRegExp::RegExp);
    if (versionRx.indexIn(text) < 0) {
        qDebug().noquote() << "no version in output" << text;
        return true;
    }
    bool ok = false;
    buildId = buildIdRx.cap(1).toInt(&ok, 10);
    if (!ok)
        return true;
    major = versionRx.cap(1).toInt(&ok, 10);
    if (!ok)
        return true;
    minor = versionRx.cap(2).toInt(&ok, 10);
    if (!ok)
        return true;
    if (suffix)
        *suffix = versionRx.cap(3);
    return false;
}

} // namespace

kelProfileHandler::kelProfileHandler(QList<AssayedProduct>& products, QHash<DlrAttrNames, QString>& properties)
    : products(products)
    , properties(properties)
{
}

kelProfileHandler::~kelProfileHandler() = default;

bool kelProfileHandler::startElement(const QString& namespaceURI, const QString& localName, const QString& qName,
                                     const QXmlAttributes& attributes)
{
    Q_UNUSED(namespaceURI)
    Q_UNUSED(qName)
    Q_UNUSED(attributes)

    if (++depth > DlrXmlMaxDepth) {
        qDebug() << "system_profiler output nested deeper than" << DlrXmlMaxDepth << "elements";
        return false;
    }
    // A "string" after a key of ours is that key's value element.
    const bool pendingValue = (state == MemoryValue || state == ItemName) && localName == QLatin1String("string");
    if (localName == QLatin1String("key"))
        state = KeyOpened;
    else if (!pendingValue)
        state = Idle;
    return true;
}

bool kelProfileHandler::endElement(const QString&, const QString&, const QString&)
{
    if (--depth == 0)
        ended = true;
    return true;
}

bool kelProfileHandler::characters(const QString& text)
{
    QString t = text.trimmed();
    // The reader also reports the blanks between tags.
    if (t.isEmpty())
        return true;

    switch (state) {
    case KeyOpened:
        if (t == QLatin1String("physical_memory"))
            state = MemoryValue;
        else if (t == QLatin1String("_name"))
            state = ItemName;
        break;
    case MemoryValue:
        if (t.contains(QLatin1String(" GB"), Qt::CaseInsensitive))
            properties.insert(DlrAttrMemory, t.remove(QLatin1String(" GB"), Qt::CaseInsensitive));
        state = Idle;
        break;
    case ItemName:
        // Install-history items read like "Maya 2017 Core"; only what is
        // not a letter, blank or underscore is the version.
        if (t.contains(QLatin1String("maya"), Qt::CaseInsensitive)
            && t.contains(QLatin1String("core"), Qt::CaseInsensitive)) {
            AssayedProduct maya;
            maya.insert(QStringLiteral("Version"), DlrRemoveMatches(t, QRegExp(QStringLiteral("[a-zA-Z _]"))));
            maya.insert(QStringLiteral("ProductName"), QStringLiteral("Maya"));
            products << maya;
        }
        state = Idle;
        break;
    default:
        break;
    }
    return true;
}

bool kelProfileHandler::fatalError(const QXmlParseException& exception)
{
    Q_UNUSED(exception)
    qDebug() << "Failed to parse system_profiler output";
    return true;
}

DlrProfileFacts DlrReadProfile(const std::function<QByteArray()>& next)
{
    DlrProfileFacts facts;
    kelProfileHandler handler(facts.products, facts.properties);
    QXmlSimpleReader reader;
    reader.setContentHandler(&handler);
    reader.setErrorHandler(&handler);
    DlrPieceInput input(next, handler);
    // Once the root element has closed the document is whole, whether or
    // not anything after it arrived in the same read (the reader stops at
    // the first stray byte there, without reporting any fact).
    facts.complete = reader.parse(&input) || handler.DocumentEnded();
    return facts;
}

void DlrMachineAssay::DoAssay()
{
    properties.clear();
    products.clear();
    properties.insert(DlrAttrOS, QStringLiteral("osx"));
    // Without the package installer nothing can be installed here, though
    // the packages can still be downloaded.
    const QString installer = DlrPlatform::PackageInstallerProgram();
    if (!QFileInfo(installer).isExecutable())
        properties.insert(DlrAttrCannotInstallReason, QStringLiteral("The package installer %1 is missing.").arg(installer));

    {
        const QString program = DlrPlatform::SystemProfilerProgram();
        const QStringList arguments{QStringLiteral("-xml"), QStringLiteral("SPHardwareDataType"),
                                    QStringLiteral("SPInstallHistoryDataType")};
        QProcess profiler;
        qDebug().noquote() << "running" << program << arguments.join(QLatin1Char(' '));
        profiler.start(program, arguments, QIODevice::ReadOnly);

        bool parsed = false;
        if (profiler.waitForStarted()) {
            // Qt's own device source would wait for ever on a profiler that
            // never closes its output; this gives up after
            // kProfilerSilenceMs without data.
            const DlrProfileFacts facts = DlrReadProfile([&profiler] {
                QByteArray bytes = profiler.read(4096);
                while (bytes.isEmpty() && profiler.waitForReadyRead(kProfilerSilenceMs))
                    bytes = profiler.read(4096);
                if (bytes.isEmpty() && profiler.state() != QProcess::NotRunning)
                    qDebug().noquote() << "system_profiler silent for" << kProfilerSilenceMs << "ms, reading stopped";
                return bytes;
            });
            properties.insert(facts.properties);
            products += facts.products;
            parsed = facts.complete;
        } else {
            qDebug().noquote() << "system_profiler did not start:" << profiler.errorString();
        }
        if (parsed)
            qDebug() << "Got system profile" << properties << products;
        else
            qDebug() << "Couldn't read system_profiler output";

        if (profiler.state() != QProcess::NotRunning && !profiler.waitForFinished(kProfilerExitMs)) {
            profiler.kill();
            profiler.waitForFinished();
        } else if (profiler.exitStatus() != QProcess::NormalExit || profiler.exitCode() != 0) {
            qDebug().noquote() << "system_profiler ended with status" << profiler.exitCode();
        }
    }

    findOktavoProducts();
}

void DlrMachineAssay::findOktavoProducts()
{
    // The families, tested in this order on a folder's name: the first whose
    // pattern is found decides. The families built for Maya need the plug-in
    // bundle and a Maya year in the name; a build-id file, where there is
    // one, is read before the probe is asked.
    struct Family {
        QRegExp pattern;
        QString idFile;
        QString probe;
        QLatin1String nameFormat; // %1 the version, %2 the Maya version
        const char* notForMaya;   // null: not built for Maya
        const char* noMayaYear;
    };
    const Family families[] = {
        {QRegExp(QStringLiteral("[Vv]elluma.*[sS]erver|VCS")), QString(), vlrenderPath,
         QLatin1String("Velluma CoreServer %1"), nullptr, nullptr},
        // "verion" (here and below) is how the log has always read: log
        // readers match it, and the package's lintian overrides answer for it.
        {QRegExp(QStringLiteral("[Vv]elluma.*[wW]orkshop|VWS")), QString(), vwsVlrenderPath,
         QLatin1String("Velluma Workshop %1 for Maya %2"), "Not VWS for Maya, no", "No maya verion in VWS path"},
        {QRegExp(QStringLiteral("[Vv]elluma.*[fF]or[Mm]aya|VFM")), buildIdFilePath, homeQueuePath,
         QLatin1String("Velluma %1 for Maya %2"), "Not Velluma for Maya, no", "No maya verion in VFM path"},
    };
    const QRegExp mayaRx(QStringLiteral("(201[1-9]\\.?[0-9]?)"), Qt::CaseSensitive, QRegExp::RegExp);
    const QRegExp noIdRx(QStringLiteral("VellumaForMaya-21.([0-2])"), Qt::CaseSensitive, QRegExp::RegExp);
    const QString separator = QDir::separator();

    // A folder that passed its family's tests, and its numbers once a
    // reader has succeeded.
    struct Candidate {
        const Family* family;
        QString folder;
        QString mayaVersion;
        bool fromFile = false;
        int buildId = 0;
        int major = 0;
        int minor = 0;
    };
    std::vector<Candidate> candidates;
    QStringList probes;

    for (const QString& location : qAsConst(possibleLocations)) {
        qDebug().noquote() << "Looking for oktavo products in" << location;
        const QDir root(location);
        if (!root.exists())
            continue;
        const QStringList entries = root.entryList(QDir::Dirs, QDir::NoSort);
        for (const QString& entry : entries) {
            const auto family = std::find_if(std::begin(families), std::end(families),
                                             [&entry](const auto& f) { return f.pattern.indexIn(entry) >= 0; });
            if (family == std::end(families))
                continue;
            qDebug().noquote() << entry << "matched" << family->pattern.pattern();
            Candidate found{family, root.absolutePath() + separator + entry, QString()};
            const QString firstSource = found.folder + separator + (family->idFile.isEmpty() ? family->probe : family->idFile);
            if (family->notForMaya) {
                const QString plugin = found.folder + separator + mayaPluginPath;
                if (!QFileInfo::exists(plugin)) {
                    qDebug().noquote() << family->notForMaya << plugin;
                    continue;
                }
                if (mayaRx.indexIn(entry) < 0) {
                    qDebug().noquote() << family->noMayaYear << firstSource;
                    continue;
                }
                found.mayaVersion = mayaRx.cap(1);
            }
            // The file is cheap to read; the probe is only asked when the
            // file says nothing.
            found.fromFile = !family->idFile.isEmpty()
                && !getBuildIdFromFile(firstSource, found.buildId, found.major, found.minor);
            const QString probe = found.folder + separator + family->probe;
            if (!found.fromFile && QFileInfo::exists(probe))
                probes << probe;
            candidates.push_back(found);
        }
    }

    // All probes at once: a folder of silent probes costs about a second,
    // not a second each.
    probeAnswers = DlrProbeRun(probes).Run();

    QString suffix;
    QList<AssayedProduct> noIdProducts;
    for (Candidate& found : candidates) {
        const Family& family = *found.family;
        if (!found.fromFile
            && getBuildIdFromExecutable(found.folder + separator + family.probe, found.buildId, found.major,
                                        found.minor, suffix)) {
            // 21.0 to 21.2 shipped without a build id: they take the build
            // of the core server of their version, if any.
            const QString idFile = found.folder + separator + family.idFile;
            if (!family.idFile.isEmpty() && noIdRx.indexIn(idFile) >= 0) {
                qDebug().noquote() << "Found 21.0 or 21.1 VfM with no id in" << idFile;
                const QString noIdVersion = QStringLiteral("21.%1").arg(noIdRx.cap(1));
                AssayedProduct noId;
                noId.insert(QStringLiteral("MayaVersion"), found.mayaVersion);
                noId.insert(QStringLiteral("ProductName"), QString(family.nameFormat).arg(noIdVersion, found.mayaVersion));
                noId.insert(QStringLiteral("Version"), noIdVersion);
                noId.insert(QStringLiteral("Location"), found.folder);
                noIdProducts << noId;
            }
            continue;
        }
        // Nothing older than the 19 series is offered updates.
        if (found.major <= 18)
            continue;
        const QString version = QStringLiteral("%1.%2").arg(found.major).arg(found.minor);
        AssayedProduct product;
        QString name = QString(family.nameFormat).arg(version);
        if (family.notForMaya) {
            name = name.arg(found.mayaVersion);
            product.insert(QStringLiteral("MayaVersion"), found.mayaVersion);
        }
        product.insert(QStringLiteral("ProductName"), name);
        product.insert(QStringLiteral("BuildId"), QString::number(found.buildId));
        product.insert(QStringLiteral("Version"), version);
        product.insert(QStringLiteral("Location"), found.folder);
        qDebug() << "Found" << product;
        products << product;
    }
    probeAnswers.clear();

    // Core servers from every location are known now.
    for (AssayedProduct& noId : noIdProducts) {
        const QString noIdVersion = noId.value(QStringLiteral("Version"));
        AssayedProduct server;
        if (!FindHighestBuildOfProduct(QStringLiteral("Velluma CoreServer"), noIdVersion, server))
            continue;
        noId.insert(QStringLiteral("BuildId"), server.value(QStringLiteral("BuildId")));
        products << noId;
        qDebug().noquote() << "Found VCS for noid version" << noIdVersion;
        qDebug() << "Found" << noId;
    }
}

bool DlrMachineAssay::getBuildIdFromFile(const QString& path, int& buildId, int& major, int& minor)
{
    const QFileInfo info(path);
    if (!info.exists()) {
        qDebug().noquote() << "getBuildIdFromFile given non-existing path" << path;
        return true;
    }
    qDebug().noquote() << "getting version info from" << path;
    QFile file(path);
    // A folder, pipe or device is no build-id file (opening a pipe would
    // wait for a writer).
    if (!info.isFile() || !file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        qDebug() << "getBuildIdFromFile couldn't open file";
        return true;
    }
    const QByteArray bytes = file.readAll();
    file.close();
    return readBuildAndVersion(textUpToNul(bytes), QStringLiteral("@([0-9]+)"), buildId, major, minor, nullptr);
}

bool DlrMachineAssay::getBuildIdFromExecutable(const QString& path, int& buildId, int& major, int& minor,
                                               QString& suffix)
{
    if (!QFileInfo::exists(path)) {
        qDebug().noquote() << "getBuildId given non-existing path" << path;
        return true;
    }
    qDebug().noquote() << "getting version info from" << path;

    // The survey has asked all its probes at once before reading them;
    // any other probe is asked now.
    if (!probeAnswers.contains(path))
        probeAnswers.insert(DlrProbeRun({path}).Run());
    const std::optional<QByteArray> banner = probeAnswers.take(path);
    if (!banner) {
        qDebug().noquote() << "Wait failed on process" << path;
        return true;
    }
    return readBuildAndVersion(textUpToNul(*banner), QStringLiteral("linked.*@([0-9]+)"), buildId, major, minor,
                               &suffix);
}

qint64 DlrMachineAssay::GetAvailableDisk(const QDir& folder)
{
    qint64 available = 0;
    if (!DlrPlatform::AvailableBytes(folder.path(), available)) {
        qDebug().noquote() << "statfs failed on" << folder.path();
        return 0;
    }
    qDebug().noquote() << "Bytes avail on" << folder.path() << available;
    return available;
}
