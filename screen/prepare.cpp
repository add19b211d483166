// Preparing a library on the engine's pipeline.

#include "screen/prepare.h"

#include <chrono>
#include <optional>

#include "io/features.h"
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
    if (settings.read.features != nullptr) {
        preparation.featureDefinitions = settings.read.features->Text();
        preparation.featureFamilies = settings.read.features->Families();
    }
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

    // Workers encode each molecule for the library (RDKit writes its records as SD text) and
    // free its parsed records; the calling thread only appends the text and arrays.
    struct Encoded {
        std::vector<io::Problem> problems;
        std::optional<io::LibraryEntry> entry;
    };
    const std::function<std::vector<Encoded>(SourceMolecule&)> process =
        [&](SourceMolecule& source) {
            std::vector<std::string> warnings;
            MessageCapture capture(warnings);
            std::vector<Encoded> encodedMolecules;
            for (PreparedEntry& prepared : PrepareEntry(source, read, densities, false)) {
                Encoded& encoded = encodedMolecules.emplace_back();
                encoded.problems = std::move(prepared.problems);
                if (prepared.fits.empty()) {
                    continue;
                }
                io::Molecule molecule;
                molecule.title = prepared.title;
                std::vector<QVChem::QVTrans> frames;
                for (Fit& fit : prepared.fits) {
                    frames.push_back(fit.prepared.toFrame);
                    molecule.conformers.push_back(std::move(fit.conformer));
                }
                try {
                    encoded.entry = io::EncodeLibraryEntry(molecule, frames);
                } catch (const std::exception& error) {
                    const Fit& first = prepared.fits.front();
                    encoded.problems.push_back({first.file, first.record, prepared.title,
                                                std::string("cannot be stored: ") + error.what(),
                                                true});
                }
            }
            return encodedMolecules;
        };
    const std::function<void(Encoded&)> write = [&](Encoded& encoded) {
        report.problems.Add(encoded.problems);
        if (!encoded.entry || !report.writeError.empty()) {
            return;
        }
        if (!writer.Append(*encoded.entry)) {
            report.writeError = writer.Error();
            control.Cancel();
            return;
        }
        ++report.counts.molecules;
        report.counts.conformers += static_cast<unsigned long>(encoded.entry->conformers.size());
    };

    const PipelineOptions options{settings.threads, settings.queueCapacity};
    const PipelineStatistics statistics =
        RunOverMolecules(*reader, settings.batchSize, options, control, process, write,
                         PollCallbacks(callbacks, report.counts, control));
    report.interrupted = statistics.cancelled && report.writeError.empty();
    report.peakInFlight = statistics.peakInFlight;
    report.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return report;
}

}  // namespace hermite::screen
