// Preparing a library on the engine's pipeline.

#include "screen/prepare.h"

#include <chrono>

#include "screen/database.h"
#include "screen/library_messages.h"

namespace hermite::screen {

io::LibraryPreparation PreparationOf(const PrepareSettings& settings) {
    io::LibraryPreparation preparation;
    preparation.hydrogens = settings.read.hydrogens;
    preparation.charges = settings.charges ? io::ChargeModelName(settings.read.charges) : "none";
    preparation.smilesConformers = settings.read.smilesConformers;
    preparation.seed = settings.read.seed;
    preparation.minimize = settings.read.minimize;
    preparation.pruneRms = settings.read.pruneRms;
    return preparation;
}

PrepareReport PrepareLibrary(const std::vector<std::string>& inputs,
                             io::PreparedLibraryWriter& writer, const PrepareSettings& settings,
                             const PrepareCallbacks& callbacks, RunControl& control) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    io::ReadOptions read = settings.read;
    read.computeCharges = settings.charges;
    read.chargesRequired = false;
    read.cancel = &control.Flag();
    const overlay::Settings densities;  // shape only: the frame is all that is kept

    Database database = Database::Files(inputs);
    std::unique_ptr<Database::Reader> reader = database.Open(DatabaseRequirements());
    PrepareReport report;

    const std::function<PreparedEntry(SourceMolecule&)> process = [&](SourceMolecule& source) {
        std::vector<std::string> warnings;
        MessageCapture capture(warnings);
        return PrepareEntry(source, read, densities, false);
    };
    const std::function<void(PreparedEntry&)> write = [&](PreparedEntry& entry) {
        report.problems.Add(entry.problems);
        if (entry.fits.empty() || !report.writeError.empty()) {
            return;
        }
        io::Molecule molecule;
        molecule.title = entry.title;
        std::vector<QVChem::QVTrans> frames;
        for (Fit& fit : entry.fits) {
            molecule.conformers.push_back(std::move(fit.conformer));
            frames.push_back(fit.prepared.toFrame);
        }
        if (!writer.Add(molecule, frames)) {
            report.writeError = writer.Error();
            control.Cancel();
            return;
        }
        ++report.counts.molecules;
        report.counts.conformers += static_cast<unsigned long>(frames.size());
    };

    PipelineOptions options;
    options.workers = settings.threads;
    options.queueCapacity = settings.queueCapacity;
    const PipelineStatistics statistics =
        RunOverMolecules(*reader, settings.batchSize, options, control, process, write,
                         PollCallbacks(callbacks, report.counts, control));
    report.interrupted = statistics.cancelled && report.writeError.empty();
    report.peakInFlight = statistics.peakInFlight;
    report.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return report;
}

}  // namespace hermite::screen
