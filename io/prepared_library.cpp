// Prepared libraries in HDF5: column datasets (one per stored quantity) that grow in chunks,
// with offset arrays tying molecules to conformers, conformers to atoms and text to records.
// The layout is documented in docs/prepared-library.md; keep the two in step.

#include "io/prepared_library.h"

#include <hdf5.h>
#include <sys/stat.h>

#include <GraphMol/Conformer.h>
#include <GraphMol/FileParsers/FileParsers.h>
#include <GraphMol/RWMol.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <map>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "io/atomic_file.h"
#include "io/conformer_builder.h"
#include "io/sd_data.h"

namespace hermite::io {

namespace {

/// The value of the root attribute `format`.
const char* const FormatName = "hermite-prepared-library";
/// The layout version this code writes and reads.
const std::uint64_t FormatVersion = 3;
/// The longest string attribute read (the values are short words).
const std::size_t MaxStringAttribute = 4096;
/// Deflate level of the compressed columns: they are written once and read for hits only.
const unsigned int DeflateLevel = 6;
/// The first bytes of every HDF5 file without a user block.
const unsigned char HdfSignature[8] = {0x89, 'H', 'D', 'F', '\r', '\n', 0x1a, '\n'};

/// Anything that stops a library operation; the message is completed with the file name by the
/// public member that catches it.
class LibraryError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// ---------------------------------------------------------------------------------------------
// HDF5 access

/// Serialises every HDF5 call of this file: the library may be built without thread safety.
std::mutex& HdfMutex() {
    static std::mutex mutex;
    return mutex;
}

/// Holds the HDF5 mutex and switches HDF5's automatic error printing off for its lifetime (its
/// errors become messages instead), restoring the previous handler afterwards. Every HDF5 call,
/// including the closing of handles, happens while one is alive.
class HdfSession {
public:
    HdfSession() : lock_(HdfMutex()) {
        restore_ = H5Eget_auto2(H5E_DEFAULT, &function_, &data_) >= 0;
        H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
    }
    ~HdfSession() {
        if (restore_) {
            H5Eset_auto2(H5E_DEFAULT, function_, data_);
        }
    }
    HdfSession(const HdfSession&) = delete;
    HdfSession& operator=(const HdfSession&) = delete;

private:
    std::lock_guard<std::mutex> lock_;
    H5E_auto2_t function_ = nullptr;
    void* data_ = nullptr;
    bool restore_ = false;
};

herr_t CollectErrorDescription(unsigned int, const H5E_error2_t* error, void* data) {
    auto* descriptions = static_cast<std::vector<std::string>*>(data);
    if (error->desc != nullptr && error->desc[0] != '\0') {
        descriptions->push_back(error->desc);
    }
    return 0;
}

/// The innermost message on HDF5's error stack, where the failure began, as " (HDF5: ...)";
/// empty if there is none. Clears the stack.
std::string HdfErrorDetail() {
    std::vector<std::string> descriptions;
    H5Ewalk2(H5E_DEFAULT, H5E_WALK_UPWARD, CollectErrorDescription, &descriptions);
    H5Eclear2(H5E_DEFAULT);
    return descriptions.empty() ? std::string() : " (HDF5: " + descriptions.front() + ")";
}

[[noreturn]] void FailHdf(const std::string& what) {
    throw LibraryError(what + HdfErrorDetail());
}

/// An HDF5 identifier closed by its own close function. Only to be destroyed while an
/// `HdfSession` is alive.
class Handle {
public:
    using Closer = herr_t (*)(hid_t);

    Handle() = default;
    Handle(hid_t id, Closer closer, const std::string& what) : id_(id), closer_(closer) {
        if (id_ < 0) {
            FailHdf(what);
        }
    }
    ~Handle() { Reset(); }
    Handle(Handle&& other) noexcept
        : id_(std::exchange(other.id_, H5I_INVALID_HID)), closer_(other.closer_) {}
    Handle& operator=(Handle&& other) noexcept {
        if (this != &other) {
            Reset();
            id_ = std::exchange(other.id_, H5I_INVALID_HID);
            closer_ = other.closer_;
        }
        return *this;
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    hid_t Id() const { return id_; }
    bool Valid() const { return id_ >= 0; }
    /// Closes the identifier; returns false if HDF5 reports a failure (e.g. a file whose last
    /// writes fail).
    bool Reset() {
        bool closed = true;
        if (id_ >= 0 && closer_ != nullptr) {
            closed = closer_(id_) >= 0;
        }
        id_ = H5I_INVALID_HID;
        return closed;
    }

private:
    hid_t id_ = H5I_INVALID_HID;
    Closer closer_ = nullptr;
};

void Check(herr_t status, const std::string& what) {
    if (status < 0) {
        FailHdf(what);
    }
}

/// File access properties: the 1.10 formats, which checksum the metadata too (superblock,
/// object headers, chunk indices), and file locking that is skipped, rather than fatal, on file
/// systems that do not support it (some network file systems).
Handle FileAccess(const std::string& what) {
    Handle access(H5Pcreate(H5P_FILE_ACCESS), H5Pclose, what);
    Check(H5Pset_libver_bounds(access.Id(), H5F_LIBVER_V110, H5F_LIBVER_V110), what);
    Check(H5Pset_file_locking(access.Id(), true, true), what);
    return access;
}

// ---------------------------------------------------------------------------------------------
// Layout

/// The element types of the columns.
enum class Kind { U8, U32, U64, F64 };

std::size_t SizeOf(Kind kind) {
    switch (kind) {
        case Kind::U8:
            return 1;
        case Kind::U32:
            return 4;
        case Kind::U64:
        case Kind::F64:
            return 8;
    }
    return 0;
}

hid_t MemoryType(Kind kind) {
    switch (kind) {
        case Kind::U8:
            return H5T_NATIVE_UINT8;
        case Kind::U32:
            return H5T_NATIVE_UINT32;
        case Kind::U64:
            return H5T_NATIVE_UINT64;
        case Kind::F64:
            return H5T_NATIVE_DOUBLE;
    }
    return H5I_INVALID_HID;
}

/// Little-endian in the file whatever the host, so that files move between machines.
hid_t FileType(Kind kind) {
    switch (kind) {
        case Kind::U8:
            return H5T_STD_U8LE;
        case Kind::U32:
            return H5T_STD_U32LE;
        case Kind::U64:
            return H5T_STD_U64LE;
        case Kind::F64:
            return H5T_IEEE_F64LE;
    }
    return H5I_INVALID_HID;
}

/// How a column is compressed. Only what is read for hits alone is: the text, and the
/// coordinates of every record atom (byte-shuffled first, which groups the similar high bytes of
/// the doubles). What every screen reads stays uncompressed, for speed.
enum class Compression { None, Deflate, ShuffleDeflate };

/// One dataset: rows of `width` elements (width 1: a 1-D dataset), chunked by `chunkRows` rows
/// (fewer in a library smaller than one chunk).
struct ColumnLayout {
    const char* path;
    Kind kind;
    hsize_t width;
    hsize_t chunkRows;
    Compression compression;
};

/// The columns, indices into `Columns`.
enum Column : std::size_t {
    TitleOffsets,
    TitleBytes,
    ConformerOffsets,
    ConformerMolecule,
    AtomOffsets,
    RecordAtomOffsets,
    Frame,
    FileIndex,
    RecordNumber,
    SdOffsets,
    SdBytes,
    Element,
    AtomXyz,
    Charge,
    RecordAtom,
    RecordAtomXyz,
    FileNameOffsets,
    FileNameBytes,
    FeatureOffsets,
    FeatureType,
    FeatureXyz,
    FeatureAtomOffsets,
    FeatureAtoms,
    FeatureDefinitionBytes,
    NumColumns
};

// Chunks of 64 to 192 KiB: several fit HDF5's default 1 MiB chunk cache per dataset, so that
// consecutive `Read` calls find the chunk they share with the previous call still decoded, and
// a hit's SD text costs the inflation of one small chunk.
const ColumnLayout Columns[NumColumns] = {
    {"molecules/title_offsets", Kind::U64, 1, 16384, Compression::None},
    {"molecules/title_bytes", Kind::U8, 1, 65536, Compression::Deflate},
    {"molecules/conformer_offsets", Kind::U64, 1, 16384, Compression::None},
    {"conformers/molecule", Kind::U64, 1, 16384, Compression::None},
    {"conformers/atom_offsets", Kind::U64, 1, 16384, Compression::None},
    {"conformers/record_atom_offsets", Kind::U64, 1, 16384, Compression::None},
    {"conformers/frame", Kind::F64, 12, 2048, Compression::None},
    {"conformers/file", Kind::U32, 1, 32768, Compression::None},
    {"conformers/record", Kind::U32, 1, 32768, Compression::None},
    {"conformers/sd_offsets", Kind::U64, 1, 16384, Compression::None},
    {"conformers/sd_bytes", Kind::U8, 1, 65536, Compression::Deflate},
    {"atoms/element", Kind::U8, 1, 131072, Compression::None},
    {"atoms/xyz", Kind::F64, 3, 8192, Compression::None},
    {"atoms/charge", Kind::F64, 1, 16384, Compression::None},
    {"atoms/record_atom", Kind::U32, 1, 32768, Compression::None},
    {"record_atoms/xyz", Kind::F64, 3, 4096, Compression::ShuffleDeflate},
    {"files/name_offsets", Kind::U64, 1, 256, Compression::None},
    {"files/name_bytes", Kind::U8, 1, 4096, Compression::Deflate},
    {"conformers/feature_offsets", Kind::U64, 1, 16384, Compression::None},
    {"features/type", Kind::U8, 1, 131072, Compression::None},
    {"features/xyz", Kind::F64, 3, 8192, Compression::None},
    {"features/atom_offsets", Kind::U64, 1, 16384, Compression::None},
    {"features/atoms", Kind::U32, 1, 32768, Compression::None},
    {"features/definitions", Kind::U8, 1, 4096, Compression::Deflate},
};

const char* const Groups[] = {"molecules",    "conformers", "atoms",
                              "record_atoms", "files",      "features"};

/// The feature families, one per line, in the root attribute `feature_families`.
const char FamilySeparator = '\n';

/// The charge sources a library may record.
const char* const ChargeNames[] = {"gasteiger", "mmff", "input", "none"};

/// When the buffers of a writer are written out: bounds on buffered conformers, atoms, record
/// atoms and SD text.
const std::size_t FlushConformers = 16384;
const std::size_t FlushAtoms = 262144;
const std::size_t FlushTextBytes = std::size_t(8) << 20;

// ---------------------------------------------------------------------------------------------
// Attributes

void WriteNumberAttribute(hid_t location, const char* name, Kind kind, const void* value) {
    const std::string what = std::string("cannot write the attribute '") + name + "'";
    if (H5Aexists(location, name) > 0) {
        Handle attribute(H5Aopen(location, name, H5P_DEFAULT), H5Aclose, what);
        Check(H5Awrite(attribute.Id(), MemoryType(kind), value), what);
        return;
    }
    Handle space(H5Screate(H5S_SCALAR), H5Sclose, what);
    Handle attribute(
        H5Acreate2(location, name, FileType(kind), space.Id(), H5P_DEFAULT, H5P_DEFAULT), H5Aclose,
        what);
    Check(H5Awrite(attribute.Id(), MemoryType(kind), value), what);
}

void WriteUnsignedAttribute(hid_t location, const char* name, Kind kind, std::uint64_t value) {
    const std::uint8_t u8 = static_cast<std::uint8_t>(value);
    const std::uint32_t u32 = static_cast<std::uint32_t>(value);
    const void* data = kind == Kind::U8    ? static_cast<const void*>(&u8)
                       : kind == Kind::U32 ? static_cast<const void*>(&u32)
                                           : static_cast<const void*>(&value);
    WriteNumberAttribute(location, name, kind, data);
}

/// A fixed-length UTF-8 string attribute (h5py reads it as `bytes`). Not variable-length: those
/// live in the file's global heap, which carries no checksum, and HDF5 can loop forever on a
/// damaged one; a fixed-length value is stored in its object header, under its checksum.
void WriteStringAttribute(hid_t location, const char* name, const std::string& value) {
    const std::string what = std::string("cannot write the attribute '") + name + "'";
    Handle type(H5Tcopy(H5T_C_S1), H5Tclose, what);
    Check(H5Tset_size(type.Id(), std::max<std::size_t>(1, value.size())), what);
    Check(H5Tset_strpad(type.Id(), H5T_STR_NULLPAD), what);
    Check(H5Tset_cset(type.Id(), H5T_CSET_UTF8), what);
    Handle space(H5Screate(H5S_SCALAR), H5Sclose, what);
    Handle attribute(H5Acreate2(location, name, type.Id(), space.Id(), H5P_DEFAULT, H5P_DEFAULT),
                     H5Aclose, what);
    std::vector<char> padded(std::max<std::size_t>(1, value.size()), '\0');
    std::copy(value.begin(), value.end(), padded.begin());
    Check(H5Awrite(attribute.Id(), type.Id(), padded.data()), what);
}

/// The attribute `name` of `location`, which must exist and hold one value.
Handle OpenScalarAttribute(hid_t location, const char* name, const std::string& missing) {
    const std::string what = std::string("cannot read the attribute '") + name + "'";
    const htri_t exists = H5Aexists(location, name);
    if (exists < 0) {
        FailHdf(what);  // damaged metadata rather than a missing attribute
    }
    if (exists == 0) {
        throw LibraryError(missing);
    }
    Handle attribute(H5Aopen(location, name, H5P_DEFAULT), H5Aclose, what);
    Handle space(H5Aget_space(attribute.Id()), H5Sclose, what);
    if (H5Sget_simple_extent_npoints(space.Id()) != 1) {
        throw LibraryError(std::string("the attribute '") + name + "' is not a single value");
    }
    return attribute;
}

/// An unsigned integer attribute; `missing` is the message when it is absent (by default, that
/// it is missing).
std::uint64_t ReadUnsignedAttribute(hid_t location, const char* name,
                                    const std::string& missing = std::string()) {
    const std::string what = std::string("cannot read the attribute '") + name + "'";
    Handle attribute = OpenScalarAttribute(
        location, name,
        missing.empty() ? std::string("the attribute '") + name + "' is missing" : missing);
    Handle type(H5Aget_type(attribute.Id()), H5Tclose, what);
    if (H5Tget_class(type.Id()) != H5T_INTEGER) {
        throw LibraryError(std::string("the attribute '") + name + "' is not an integer");
    }
    std::uint64_t value = 0;
    Check(H5Aread(attribute.Id(), H5T_NATIVE_UINT64, &value), what);
    return value;
}

double ReadDoubleAttribute(hid_t location, const char* name) {
    const std::string what = std::string("cannot read the attribute '") + name + "'";
    Handle attribute =
        OpenScalarAttribute(location, name, std::string("the attribute '") + name + "' is missing");
    double value = 0.0;
    Check(H5Aread(attribute.Id(), H5T_NATIVE_DOUBLE, &value), what);
    return value;
}

/// A string attribute, variable-length or fixed-length; `missing` is the message when it is
/// absent or not a string.
std::string ReadStringAttribute(hid_t location, const char* name, const std::string& missing) {
    const std::string what = std::string("cannot read the attribute '") + name + "'";
    Handle attribute = OpenScalarAttribute(location, name, missing);
    Handle type(H5Aget_type(attribute.Id()), H5Tclose, what);
    if (H5Tget_class(type.Id()) != H5T_STRING) {
        throw LibraryError(missing);
    }
    // Never read a variable-length string: its value lives in the global heap, which has no
    // checksum, and a damaged heap can make HDF5 loop forever.
    if (H5Tis_variable_str(type.Id()) != 0) {
        throw LibraryError(std::string("the attribute '") + name +
                           "' is a variable-length string, which prepared libraries do not use "
                           "(a library of format version 1, or another program's file: prepare "
                           "the library again)");
    }
    const std::size_t size = H5Tget_size(type.Id());
    if (size == 0 || size > MaxStringAttribute) {
        throw LibraryError(std::string("the attribute '") + name + "' has an unusable size");
    }
    std::vector<char> buffer(size + 1, '\0');
    Check(H5Aread(attribute.Id(), type.Id(), buffer.data()), what);
    return std::string(buffer.data());
}

// ---------------------------------------------------------------------------------------------
// Files

std::string SystemError(const std::string& what, int errorNumber) {
    return what + ": " + std::strerror(errorNumber);
}

// ---------------------------------------------------------------------------------------------
// Reading rows

/// Rows [first, first + rows) of a column into `out` (rows * width elements of type T, which
/// must match the column's kind).
template <typename T>
void ReadRows(hid_t dataset, Column column, std::uint64_t first, std::uint64_t rows,
              std::vector<T>& out) {
    const ColumnLayout& layout = Columns[column];
    out.resize(static_cast<std::size_t>(rows * layout.width));
    if (rows == 0) {
        return;
    }
    const std::string what = std::string("cannot read ") + layout.path;
    Handle fileSpace(H5Dget_space(dataset), H5Sclose, what);
    const int rank = layout.width == 1 ? 1 : 2;
    const hsize_t start[2] = {first, 0};
    const hsize_t count[2] = {rows, layout.width};
    Check(H5Sselect_hyperslab(fileSpace.Id(), H5S_SELECT_SET, start, nullptr, count, nullptr),
          what);
    Handle memorySpace(H5Screate_simple(rank, count, nullptr), H5Sclose, what);
    Check(H5Dread(dataset, MemoryType(layout.kind), memorySpace.Id(), fileSpace.Id(), H5P_DEFAULT,
                  out.data()),
          what);
}

/// Checks that an offset slice increases and ends within `limit`.
void CheckOffsets(const std::vector<std::uint64_t>& offsets, std::uint64_t limit, Column column) {
    for (std::size_t i = 0; i < offsets.size(); ++i) {
        if (offsets[i] > limit || (i > 0 && offsets[i] < offsets[i - 1])) {
            throw LibraryError(std::string("corrupt offsets in ") + Columns[column].path);
        }
    }
}

std::string Slice(const std::vector<char>& bytes, std::uint64_t begin, std::uint64_t end) {
    return std::string(bytes.data() + begin, bytes.data() + end);
}

// ---------------------------------------------------------------------------------------------
// Feature families

/// Why `families` cannot be stored, or empty: a type is one byte, and the names are one
/// attribute, a line each.
std::string FamiliesProblem(const std::vector<std::string>& families) {
    if (families.size() > 255) {
        return "more than 255 feature families";
    }
    std::size_t length = 0;
    for (const std::string& family : families) {
        if (family.empty() || family.find(FamilySeparator) != std::string::npos ||
            family.find('\0') != std::string::npos) {
            return "a feature family name is empty or holds a line break or a null character";
        }
        length += family.size() + 1;
    }
    return length > MaxStringAttribute ? "the feature family names are too long" : "";
}

std::string JoinFamilies(const std::vector<std::string>& families) {
    std::string joined;
    for (std::size_t i = 0; i < families.size(); ++i) {
        joined += (i > 0 ? std::string(1, FamilySeparator) : std::string()) + families[i];
    }
    return joined;
}

std::vector<std::string> SplitFamilies(const std::string& joined) {
    std::vector<std::string> families;
    std::size_t begin = 0;
    while (begin < joined.size()) {
        const std::size_t end = std::min(joined.find(FamilySeparator, begin), joined.size());
        families.push_back(joined.substr(begin, end - begin));
        begin = end + 1;
    }
    return families;
}

}  // namespace

// =============================================================================================
// PreparedLibraryWriter

struct PreparedLibraryWriter::State {
    std::string path;
    /// The temporary file HDF5 writes by name, renamed onto `path` on commit.
    AtomicFile output;
    LibraryPreparation preparation;
    Handle file;
    Handle datasets[NumColumns];
    /// Rows not yet written, as raw native-endian bytes.
    std::vector<unsigned char> buffers[NumColumns];
    /// Rows in the file.
    hsize_t written[NumColumns] = {};
    /// Index of each source file name in the file table.
    std::map<std::string, std::uint32_t> fileIndices;
    /// Running totals, the next value of each offset array.
    std::uint64_t titleBytes = 0;
    std::uint64_t conformers = 0;
    std::uint64_t atoms = 0;
    std::uint64_t recordAtoms = 0;
    std::uint64_t sdBytes = 0;
    std::uint64_t fileNameBytes = 0;
    std::uint64_t features = 0;
    std::uint64_t featureAtoms = 0;
    unsigned long molecules = 0;
    bool failed = false;
    std::string error;

    template <typename T>
    void Push(Column column, T value) {
        const auto* bytes = reinterpret_cast<const unsigned char*>(&value);
        buffers[column].insert(buffers[column].end(), bytes, bytes + sizeof(T));
    }
    void PushText(Column column, const std::string& text) {
        buffers[column].insert(buffers[column].end(), text.begin(), text.end());
    }
    /// Buffers a conformer's features and its feature offset.
    void PushFeatures(const std::vector<Feature>& conformerFeatures) {
        for (const Feature& feature : conformerFeatures) {
            Push<std::uint8_t>(FeatureType, static_cast<std::uint8_t>(feature.type));
            for (double coordinate : {feature.x, feature.y, feature.z}) {
                Push<double>(FeatureXyz, coordinate);
            }
            for (unsigned int atom : feature.atoms) {
                Push<std::uint32_t>(FeatureAtoms, atom);
            }
            featureAtoms += feature.atoms.size();
            Push<std::uint64_t>(FeatureAtomOffsets, featureAtoms);
        }
        features += conformerFeatures.size();
        Push<std::uint64_t>(FeatureOffsets, features);
    }
    hsize_t BufferedRows(Column column) const {
        return buffers[column].size() / (SizeOf(Columns[column].kind) * Columns[column].width);
    }
    std::uint32_t FileIndexOf(const std::string& name);
    void Create();
    void Flush(bool final);
    void CreateDataset(Column column, hsize_t chunkRows);
    void CloseAll();
    void RemoveTemporary();
};

std::uint32_t PreparedLibraryWriter::State::FileIndexOf(const std::string& name) {
    const auto found = fileIndices.find(name);
    if (found != fileIndices.end()) {
        return found->second;
    }
    const auto index = static_cast<std::uint32_t>(fileIndices.size());
    fileIndices.emplace(name, index);
    PushText(FileNameBytes, name);
    fileNameBytes += name.size();
    Push<std::uint64_t>(FileNameOffsets, fileNameBytes);
    return index;
}

void PreparedLibraryWriter::State::Create() {
    const Handle access = FileAccess("cannot create the HDF5 file");
    file =
        Handle(H5Fcreate(output.TemporaryPath().c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, access.Id()),
               H5Fclose, "cannot create the HDF5 file");
    // No modification times in the objects' headers: the same input gives the same bytes.
    Handle groupCreation(H5Pcreate(H5P_GROUP_CREATE), H5Pclose, "cannot create the groups");
    Check(H5Pset_obj_track_times(groupCreation.Id(), false), "cannot create the groups");
    for (const char* name : Groups) {
        Handle group(H5Gcreate2(file.Id(), name, H5P_DEFAULT, groupCreation.Id(), H5P_DEFAULT),
                     H5Gclose, std::string("cannot create the group ") + name);
    }
    const hid_t root = file.Id();
    WriteStringAttribute(root, "format", FormatName);
    WriteUnsignedAttribute(root, "format_version", Kind::U32, FormatVersion);
    WriteUnsignedAttribute(root, "complete", Kind::U8, 0);
    WriteUnsignedAttribute(root, "hydrogens", Kind::U8, preparation.hydrogens ? 1 : 0);
    WriteStringAttribute(root, "charges", preparation.charges);
    WriteUnsignedAttribute(root, "smiles_conformers", Kind::U32, preparation.smilesConformers);
    WriteUnsignedAttribute(root, "seed", Kind::U32, preparation.seed);
    WriteUnsignedAttribute(root, "minimize", Kind::U8, preparation.minimize ? 1 : 0);
    WriteNumberAttribute(root, "prune_rms", Kind::F64, &preparation.pruneRms);
    WriteStringAttribute(root, "feature_families", JoinFamilies(preparation.featureFamilies));
}

void PreparedLibraryWriter::State::CreateDataset(Column column, hsize_t chunkRows) {
    const ColumnLayout& layout = Columns[column];
    const std::string what = std::string("cannot create ") + layout.path;
    const int rank = layout.width == 1 ? 1 : 2;
    const hsize_t dims[2] = {0, layout.width};
    const hsize_t maxDims[2] = {H5S_UNLIMITED, layout.width};
    const hsize_t chunk[2] = {chunkRows, layout.width};
    Handle space(H5Screate_simple(rank, dims, maxDims), H5Sclose, what);
    Handle creation(H5Pcreate(H5P_DATASET_CREATE), H5Pclose, what);
    Check(H5Pset_chunk(creation.Id(), rank, chunk), what);
    Check(H5Pset_obj_track_times(creation.Id(), false), what);
    if (layout.compression == Compression::ShuffleDeflate) {
        Check(H5Pset_shuffle(creation.Id()), what);
    }
    if (layout.compression != Compression::None) {
        Check(H5Pset_deflate(creation.Id(), DeflateLevel), what);
    }
    // After deflate, so that a damaged chunk is caught before it is inflated.
    Check(H5Pset_fletcher32(creation.Id()), what);
    datasets[column] = Handle(H5Dcreate2(file.Id(), layout.path, FileType(layout.kind), space.Id(),
                                         H5P_DEFAULT, creation.Id(), H5P_DEFAULT),
                              H5Dclose, what);
}

void PreparedLibraryWriter::State::Flush(bool final) {
    for (std::size_t c = 0; c < NumColumns; ++c) {
        const Column column = static_cast<Column>(c);
        const ColumnLayout& layout = Columns[column];
        const hsize_t rows = BufferedRows(column);
        if (!datasets[column].Valid()) {
            // A library that fits in one chunk gets chunks of its own size, not mostly empty
            // ones.
            CreateDataset(column, final ? std::max<hsize_t>(1, std::min(rows, layout.chunkRows))
                                        : layout.chunkRows);
        }
        if (rows == 0) {
            continue;
        }
        const std::string what = std::string("cannot write ") + layout.path;
        const hid_t dataset = datasets[column].Id();
        const int rank = layout.width == 1 ? 1 : 2;
        const hsize_t size[2] = {written[column] + rows, layout.width};
        Check(H5Dset_extent(dataset, size), what);
        Handle fileSpace(H5Dget_space(dataset), H5Sclose, what);
        const hsize_t start[2] = {written[column], 0};
        const hsize_t count[2] = {rows, layout.width};
        Check(H5Sselect_hyperslab(fileSpace.Id(), H5S_SELECT_SET, start, nullptr, count, nullptr),
              what);
        Handle memorySpace(H5Screate_simple(rank, count, nullptr), H5Sclose, what);
        Check(H5Dwrite(dataset, MemoryType(layout.kind), memorySpace.Id(), fileSpace.Id(),
                       H5P_DEFAULT, buffers[column].data()),
              what);
        written[column] += rows;
        buffers[column].clear();
    }
}

void PreparedLibraryWriter::State::CloseAll() {
    for (Handle& dataset : datasets) {
        dataset.Reset();
    }
    file.Reset();
}

void PreparedLibraryWriter::State::RemoveTemporary() {
    output.Discard();
}

PreparedLibraryWriter::PreparedLibraryWriter(const std::string& path,
                                             const LibraryPreparation& preparation)
    : state_(std::make_unique<State>()) {
    State& state = *state_;
    state.path = path;
    state.preparation = preparation;
    for (Column column : {TitleOffsets, ConformerOffsets, AtomOffsets, RecordAtomOffsets, SdOffsets,
                          FileNameOffsets, FeatureOffsets, FeatureAtomOffsets}) {
        state.Push<std::uint64_t>(column, 0);
    }
    state.PushText(FeatureDefinitionBytes, preparation.featureDefinitions);
    if (std::find(std::begin(ChargeNames), std::end(ChargeNames), preparation.charges) ==
        std::end(ChargeNames)) {
        state.error = path + ": unknown charge source '" + preparation.charges +
                      "' (gasteiger, mmff, input or none)";
        state.failed = true;
        return;
    }
    if (!(preparation.pruneRms >= 0.0) || !std::isfinite(preparation.pruneRms)) {
        state.error = path + ": the pruning threshold must be a finite number >= 0";
        state.failed = true;
        return;
    }
    const std::string families = FamiliesProblem(preparation.featureFamilies);
    if (!families.empty()) {
        state.error = path + ": " + families;
        state.failed = true;
        return;
    }
    if (!state.output.Open(path)) {
        state.error = state.output.Error();
        state.failed = true;
        return;
    }
    HdfSession session;
    try {
        state.Create();
    } catch (const LibraryError& error) {
        state.error = path + ": " + error.what();
        state.failed = true;
        state.CloseAll();
        state.RemoveTemporary();
    }
}

PreparedLibraryWriter::~PreparedLibraryWriter() {
    HdfSession session;
    state_->CloseAll();
    state_->RemoveTemporary();
}

bool PreparedLibraryWriter::Ok() const {
    return state_->file.Valid() && !state_->failed;
}

const std::string& PreparedLibraryWriter::Error() const {
    return state_->error;
}

unsigned long PreparedLibraryWriter::Molecules() const {
    return state_->molecules;
}

unsigned long PreparedLibraryWriter::Conformers() const {
    return static_cast<unsigned long>(state_->conformers);
}

LibraryEntry EncodeLibraryEntry(const Molecule& molecule,
                                const std::vector<QVChem::QVTrans>& frames) {
    const std::string where = "molecule '" + molecule.title + "': ";
    if (molecule.conformers.empty()) {
        throw std::runtime_error(where + "no conformers");
    }
    if (frames.size() != molecule.conformers.size()) {
        throw std::runtime_error(where + std::to_string(frames.size()) + " frames for " +
                                 std::to_string(molecule.conformers.size()) + " conformers");
    }
    LibraryEntry entry;
    entry.title = molecule.title;
    for (std::size_t c = 0; c < molecule.conformers.size(); ++c) {
        const Conformer& conformer = molecule.conformers[c];
        const std::string source =
            where + conformer.File() + ", record " + std::to_string(conformer.Record()) + ": ";
        LibraryEntry::Stored stored;
        try {
            stored.sdText = FormatSdRecord(conformer);
        } catch (const std::exception& error) {
            throw std::runtime_error(source + error.what());
        }
        if (const Conformer::RecordData* data = ConformerAccess::Data(conformer)) {
            for (const RDGeom::Point3D& position :
                 data->molecule->getConformer(data->conformerId).getPositions()) {
                stored.recordXyz.insert(stored.recordXyz.end(),
                                        {position.x, position.y, position.z});
            }
        } else {
            stored.recordXyz.resize(3 * std::size_t(conformer.Mol().NumAtoms()));
            conformer.Mol().GetCoords(stored.recordXyz.data());
        }
        const std::size_t numRecordAtoms = stored.recordXyz.size() / 3;
        const std::vector<unsigned int>& indices = conformer.RecordAtomIndices();
        if (indices.size() != conformer.Mol().NumAtoms()) {
            throw std::runtime_error(source + "record-atom indices do not match the atoms");
        }
        for (unsigned int i = 0; i < conformer.Mol().NumAtoms(); ++i) {
            if (indices[i] >= numRecordAtoms) {
                throw std::runtime_error(source + "record-atom index out of range");
            }
            if (conformer.Mol().GetAtom(i).GetAtomicNumber() > 255) {
                throw std::runtime_error(source + "atomic number above 255");
            }
        }
        for (const Feature& feature : conformer.Features()) {
            for (unsigned int atom : feature.atoms) {
                if (atom >= numRecordAtoms) {
                    throw std::runtime_error(source + "feature atom index out of range");
                }
            }
        }
        stored.features = conformer.Features();
        stored.mol = conformer.Mol();
        stored.recordAtoms = indices;
        stored.frame = frames[c];
        stored.file = conformer.File();
        stored.record = conformer.Record();
        entry.conformers.push_back(std::move(stored));
    }
    return entry;
}

bool PreparedLibraryWriter::Add(const Molecule& molecule,
                                const std::vector<QVChem::QVTrans>& frames) {
    State& state = *state_;
    if (!Ok()) {
        if (state.error.empty()) {
            state.error = state.path + ": the library is not open";
        }
        return false;
    }
    // Everything that can fail for this molecule alone comes first, so that a molecule is
    // stored whole or not at all.
    LibraryEntry entry;
    try {
        entry = EncodeLibraryEntry(molecule, frames);
    } catch (const std::exception& error) {
        state.error = state.path + ": " + error.what();
        return false;
    }
    return Append(entry);
}

bool PreparedLibraryWriter::Append(const LibraryEntry& entry) {
    State& state = *state_;
    if (!Ok()) {
        if (state.error.empty()) {
            state.error = state.path + ": the library is not open";
        }
        return false;
    }
    if (entry.conformers.empty()) {
        state.error = state.path + ": molecule '" + entry.title + "': no conformers";
        return false;
    }
    for (const LibraryEntry::Stored& stored : entry.conformers) {
        for (const Feature& feature : stored.features) {
            if (feature.type >= state.preparation.featureFamilies.size()) {
                state.error = state.path + ": molecule '" + entry.title + "': feature type " +
                              std::to_string(feature.type) + " is not one of the library's " +
                              std::to_string(state.preparation.featureFamilies.size()) +
                              " feature families";
                return false;
            }
        }
    }
    state.PushText(TitleBytes, entry.title);
    state.titleBytes += entry.title.size();
    state.Push<std::uint64_t>(TitleOffsets, state.titleBytes);
    for (const LibraryEntry::Stored& stored : entry.conformers) {
        const QVChem::QVMol& mol = stored.mol;
        state.Push<std::uint64_t>(ConformerMolecule, state.molecules);
        for (const QVChem::QVAtom& atom : mol) {
            double xyz[3];
            atom.GetCoords(xyz);
            state.Push<std::uint8_t>(Element, static_cast<std::uint8_t>(atom.GetAtomicNumber()));
            for (double coordinate : xyz) {
                state.Push<double>(AtomXyz, coordinate);
            }
            state.Push<double>(Charge, atom.GetPartialCharge());
        }
        for (unsigned int index : stored.recordAtoms) {
            state.Push<std::uint32_t>(RecordAtom, index);
        }
        state.atoms += mol.NumAtoms();
        state.Push<std::uint64_t>(AtomOffsets, state.atoms);
        for (double coordinate : stored.recordXyz) {
            state.Push<double>(RecordAtomXyz, coordinate);
        }
        state.recordAtoms += stored.recordXyz.size() / 3;
        state.Push<std::uint64_t>(RecordAtomOffsets, state.recordAtoms);
        state.PushFeatures(stored.features);
        double frame[12];
        stored.frame.Extract(frame, frame + 9, true);
        for (double value : frame) {
            state.Push<double>(Frame, value);
        }
        state.Push<std::uint32_t>(FileIndex, state.FileIndexOf(stored.file));
        state.Push<std::uint32_t>(RecordNumber, stored.record);
        state.PushText(SdBytes, stored.sdText);
        state.sdBytes += stored.sdText.size();
        state.Push<std::uint64_t>(SdOffsets, state.sdBytes);
        ++state.conformers;
    }
    ++state.molecules;
    state.Push<std::uint64_t>(ConformerOffsets, state.conformers);

    if (state.BufferedRows(ConformerMolecule) >= FlushConformers ||
        state.BufferedRows(Element) >= FlushAtoms ||
        state.BufferedRows(RecordAtomXyz) >= FlushAtoms ||
        state.BufferedRows(FeatureType) >= FlushAtoms ||
        state.buffers[SdBytes].size() >= FlushTextBytes) {
        HdfSession session;
        try {
            state.Flush(false);
        } catch (const LibraryError& error) {
            state.error = state.path + ": " + error.what();
            state.failed = true;
            return false;
        }
    }
    return true;
}

bool PreparedLibraryWriter::Commit() {
    State& state = *state_;
    if (!Ok()) {
        if (state.error.empty()) {
            state.error = state.path + ": the library is not open";
        }
        HdfSession session;
        state.CloseAll();
        state.RemoveTemporary();
        return false;
    }
    HdfSession session;
    try {
        state.Flush(true);
        const hid_t root = state.file.Id();
        WriteUnsignedAttribute(root, "num_molecules", Kind::U64, state.molecules);
        WriteUnsignedAttribute(root, "num_conformers", Kind::U64, state.conformers);
        WriteUnsignedAttribute(root, "num_atoms", Kind::U64, state.atoms);
        WriteUnsignedAttribute(root, "num_record_atoms", Kind::U64, state.recordAtoms);
        WriteUnsignedAttribute(root, "num_files", Kind::U64, state.fileIndices.size());
        WriteUnsignedAttribute(root, "num_features", Kind::U64, state.features);
        // Last, so that a file with complete = 1 has everything else.
        WriteUnsignedAttribute(root, "complete", Kind::U8, 1);
        for (Handle& dataset : state.datasets) {
            if (!dataset.Reset()) {
                FailHdf("cannot close a dataset");
            }
        }
        if (!state.file.Reset()) {
            FailHdf("cannot close the HDF5 file");
        }
        // The file HDF5 wrote by name is the one the AtomicFile holds open: committing it
        // flushes it to disk, gives it the destination's mode and renames it into place.
        if (!state.output.Commit()) {
            state.error = state.output.Error();
            state.failed = true;
            return false;
        }
    } catch (const LibraryError& error) {
        state.error = state.path + ": " + error.what();
        state.failed = true;
        state.CloseAll();
        state.RemoveTemporary();
        return false;
    }
    return true;
}

// =============================================================================================
// PreparedLibraryReader

struct PreparedLibraryReader::State {
    std::string path;
    std::string error;
    bool ok = false;
    LibraryPreparation preparation;
    Handle file;
    Handle datasets[NumColumns];
    std::uint64_t molecules = 0;
    std::uint64_t conformers = 0;
    std::uint64_t atoms = 0;
    std::uint64_t recordAtoms = 0;
    std::uint64_t titleBytes = 0;
    std::uint64_t sdBytes = 0;
    std::uint64_t features = 0;
    std::uint64_t featureAtoms = 0;
    std::vector<std::string> fileNames;

    void Open();
    /// The features of conformers [first, first + count), one list per conformer.
    std::vector<std::vector<Feature>> ReadFeatures(std::uint64_t first, std::uint64_t count);
    std::uint64_t Rows(Column column) const;
    std::uint64_t Last(Column column, std::uint64_t rows);
    template <typename T>
    void Read(Column column, std::uint64_t first, std::uint64_t rows, std::vector<T>& out) {
        ReadRows(datasets[column].Id(), column, first, rows, out);
    }
    /// Offsets [first, first + rows] of an offset column, checked against `limit`.
    std::vector<std::uint64_t> Offsets(Column column, std::uint64_t first, std::uint64_t count,
                                       std::uint64_t limit) {
        std::vector<std::uint64_t> offsets;
        Read(column, first, count + 1, offsets);
        CheckOffsets(offsets, limit, column);
        return offsets;
    }
    void CloseAll() {
        for (Handle& dataset : datasets) {
            dataset.Reset();
        }
        file.Reset();
    }
};

std::uint64_t PreparedLibraryReader::State::Rows(Column column) const {
    const ColumnLayout& layout = Columns[column];
    const std::string what = std::string("cannot read ") + layout.path;
    Handle space(H5Dget_space(datasets[column].Id()), H5Sclose, what);
    const int rank = H5Sget_simple_extent_ndims(space.Id());
    hsize_t dims[2] = {0, 0};
    if (rank != (layout.width == 1 ? 1 : 2) ||
        H5Sget_simple_extent_dims(space.Id(), dims, nullptr) != rank ||
        (rank == 2 && dims[1] != layout.width)) {
        throw LibraryError(std::string("the dataset ") + layout.path + " has the wrong shape");
    }
    return dims[0];
}

std::uint64_t PreparedLibraryReader::State::Last(Column column, std::uint64_t rows) {
    std::vector<std::uint64_t> last;
    Read(column, rows - 1, 1, last);
    return last[0];
}

void PreparedLibraryReader::State::Open() {
    const Handle access = FileAccess("cannot open the HDF5 file");
    file = Handle(H5Fopen(path.c_str(), H5F_ACC_RDONLY, access.Id()), H5Fclose,
                  "cannot open the HDF5 file (damaged or truncated?)");
    const hid_t root = file.Id();
    const std::string notLibrary =
        "an HDF5 file, but not a hermite prepared library (no 'format' attribute '" +
        std::string(FormatName) + "')";
    if (ReadStringAttribute(root, "format", notLibrary) != FormatName) {
        throw LibraryError(notLibrary);
    }
    const std::uint64_t version = ReadUnsignedAttribute(root, "format_version");
    if (version != FormatVersion) {
        throw LibraryError("unsupported prepared library format version " +
                           std::to_string(version) + " (this build reads version " +
                           std::to_string(FormatVersion) +
                           (version < FormatVersion ? "; prepare the library again" : "") + ")");
    }
    const std::string incomplete =
        "incomplete prepared library: the preparation that wrote it did not finish";
    if (ReadUnsignedAttribute(root, "complete", incomplete) != 1) {
        throw LibraryError(incomplete);
    }
    preparation.hydrogens = ReadUnsignedAttribute(root, "hydrogens") != 0;
    preparation.charges =
        ReadStringAttribute(root, "charges", "the attribute 'charges' is missing");
    preparation.smilesConformers =
        static_cast<unsigned int>(ReadUnsignedAttribute(root, "smiles_conformers"));
    preparation.seed = static_cast<unsigned int>(ReadUnsignedAttribute(root, "seed"));
    preparation.minimize = ReadUnsignedAttribute(root, "minimize") != 0;
    preparation.pruneRms = ReadDoubleAttribute(root, "prune_rms");
    molecules = ReadUnsignedAttribute(root, "num_molecules");
    conformers = ReadUnsignedAttribute(root, "num_conformers");
    atoms = ReadUnsignedAttribute(root, "num_atoms");
    recordAtoms = ReadUnsignedAttribute(root, "num_record_atoms");
    const std::uint64_t files = ReadUnsignedAttribute(root, "num_files");
    features = ReadUnsignedAttribute(root, "num_features");
    preparation.featureFamilies = SplitFamilies(ReadStringAttribute(
        root, "feature_families", "the attribute 'feature_families' is missing"));
    const std::string families = FamiliesProblem(preparation.featureFamilies);
    if (!families.empty()) {
        throw LibraryError("the attribute 'feature_families' is unusable: " + families);
    }

    for (std::size_t c = 0; c < NumColumns; ++c) {
        const ColumnLayout& layout = Columns[c];
        const htri_t exists = H5Lexists(root, layout.path, H5P_DEFAULT);
        if (exists < 0) {
            FailHdf(std::string("cannot open ") + layout.path);
        }
        if (exists == 0) {
            throw LibraryError(std::string("the dataset ") + layout.path + " is missing");
        }
        datasets[c] = Handle(H5Dopen2(root, layout.path, H5P_DEFAULT), H5Dclose,
                             std::string("cannot open ") + layout.path);
        Handle type(H5Dget_type(datasets[c].Id()), H5Tclose,
                    std::string("cannot open ") + layout.path);
        const H5T_class_t typeClass = H5Tget_class(type.Id());
        const bool typeOk = layout.kind == Kind::F64
                                ? typeClass == H5T_FLOAT && H5Tget_size(type.Id()) == 8
                                : typeClass == H5T_INTEGER &&
                                      H5Tget_sign(type.Id()) == H5T_SGN_NONE &&
                                      H5Tget_size(type.Id()) == SizeOf(layout.kind);
        if (!typeOk) {
            throw LibraryError(std::string("the dataset ") + layout.path + " has the wrong type");
        }
    }

    // Every column must have the length the counts give (the byte columns: any), and every
    // offset array must run from 0 to the length of the column it indexes.
    const std::uint64_t any = std::numeric_limits<std::uint64_t>::max();
    const std::uint64_t expected[NumColumns] = {molecules + 1,
                                                any,
                                                molecules + 1,
                                                conformers,
                                                conformers + 1,
                                                conformers + 1,
                                                conformers,
                                                conformers,
                                                conformers,
                                                conformers + 1,
                                                any,
                                                atoms,
                                                atoms,
                                                atoms,
                                                atoms,
                                                recordAtoms,
                                                files + 1,
                                                any,
                                                conformers + 1,
                                                features,
                                                features,
                                                features + 1,
                                                any,
                                                any};
    std::uint64_t rows[NumColumns];
    for (std::size_t c = 0; c < NumColumns; ++c) {
        rows[c] = Rows(static_cast<Column>(c));
        if (expected[c] != any && rows[c] != expected[c]) {
            throw LibraryError(std::string("inconsistent library: ") + Columns[c].path + " has " +
                               std::to_string(rows[c]) + " rows, expected " +
                               std::to_string(expected[c]));
        }
    }
    const std::pair<Column, std::uint64_t> ends[] = {{TitleOffsets, rows[TitleBytes]},
                                                     {ConformerOffsets, conformers},
                                                     {AtomOffsets, atoms},
                                                     {RecordAtomOffsets, recordAtoms},
                                                     {SdOffsets, rows[SdBytes]},
                                                     {FileNameOffsets, rows[FileNameBytes]},
                                                     {FeatureOffsets, features},
                                                     {FeatureAtomOffsets, rows[FeatureAtoms]}};
    for (const auto& [column, end] : ends) {
        std::vector<std::uint64_t> start;
        Read(column, 0, 1, start);
        if (start[0] != 0 || Last(column, rows[column]) != end) {
            throw LibraryError(std::string("inconsistent library: ") + Columns[column].path +
                               " does not span the data it indexes");
        }
    }
    titleBytes = rows[TitleBytes];
    sdBytes = rows[SdBytes];
    featureAtoms = rows[FeatureAtoms];
    std::vector<char> definitions;
    Read(FeatureDefinitionBytes, 0, rows[FeatureDefinitionBytes], definitions);
    preparation.featureDefinitions.assign(definitions.begin(), definitions.end());

    const std::vector<std::uint64_t> nameOffsets =
        Offsets(FileNameOffsets, 0, files, rows[FileNameBytes]);
    std::vector<char> names;
    Read(FileNameBytes, 0, rows[FileNameBytes], names);
    for (std::uint64_t f = 0; f < files; ++f) {
        fileNames.push_back(Slice(names, nameOffsets[f], nameOffsets[f + 1]));
    }
}

std::vector<std::vector<Feature>> PreparedLibraryReader::State::ReadFeatures(std::uint64_t first,
                                                                             std::uint64_t count) {
    const std::vector<std::uint64_t> offsets = Offsets(FeatureOffsets, first, count, features);
    const std::uint64_t f0 = offsets.front();
    const std::uint64_t numFeatures = offsets.back() - f0;
    std::vector<std::uint8_t> types;
    std::vector<double> xyz;
    Read(FeatureType, f0, numFeatures, types);
    Read(FeatureXyz, f0, numFeatures, xyz);
    const std::vector<std::uint64_t> atomOffsets =
        Offsets(FeatureAtomOffsets, f0, numFeatures, featureAtoms);
    std::vector<std::uint32_t> atoms;
    Read(FeatureAtoms, atomOffsets.front(), atomOffsets.back() - atomOffsets.front(), atoms);

    const std::vector<std::string>& families = preparation.featureFamilies;
    std::vector<std::vector<Feature>> perConformer(static_cast<std::size_t>(count));
    for (std::size_t c = 0; c < perConformer.size(); ++c) {
        for (std::uint64_t f = offsets[c] - f0; f < offsets[c + 1] - f0; ++f) {
            if (types[f] >= families.size()) {
                throw LibraryError("corrupt feature type in features/type");
            }
            Feature& feature = perConformer[c].emplace_back();
            feature.type = types[f];
            feature.family = families[types[f]];
            feature.x = xyz[3 * f];
            feature.y = xyz[3 * f + 1];
            feature.z = xyz[3 * f + 2];
            feature.atoms.assign(atoms.begin() + (atomOffsets[f] - atomOffsets.front()),
                                 atoms.begin() + (atomOffsets[f + 1] - atomOffsets.front()));
        }
    }
    return perConformer;
}

PreparedLibraryReader::PreparedLibraryReader(const std::string& path)
    : state_(std::make_unique<State>()) {
    State& state = *state_;
    state.path = path;
    std::FILE* stream = std::fopen(path.c_str(), "rb");
    if (stream == nullptr) {
        state.error = path + ": " + SystemError("cannot open file", errno);
        return;
    }
    std::fclose(stream);
    struct stat status;
    if (::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
        state.error = path + ": " + SystemError("cannot open file", EISDIR);
        return;
    }
    if (!IsPreparedLibrary(path)) {
        state.error = path + ": not a prepared library (not an HDF5 file)";
        return;
    }
    HdfSession session;
    try {
        state.Open();
        state.ok = true;
    } catch (const LibraryError& error) {
        state.error = path + ": " + error.what();
        state.CloseAll();
    }
}

PreparedLibraryReader::~PreparedLibraryReader() {
    HdfSession session;
    state_->CloseAll();
}

bool PreparedLibraryReader::Ok() const {
    return state_->ok;
}

const std::string& PreparedLibraryReader::Error() const {
    return state_->error;
}

const LibraryPreparation& PreparedLibraryReader::Preparation() const {
    return state_->preparation;
}

std::size_t PreparedLibraryReader::NumMolecules() const {
    return state_->ok ? static_cast<std::size_t>(state_->molecules) : 0;
}

std::size_t PreparedLibraryReader::NumConformers() const {
    return state_->ok ? static_cast<std::size_t>(state_->conformers) : 0;
}

bool PreparedLibraryReader::Read(std::size_t first, std::size_t count,
                                 std::vector<LibraryMolecule>& out) {
    State& state = *state_;
    out.clear();
    if (!state.ok) {
        if (state.error.empty()) {
            state.error = state.path + ": the library is not open";
        }
        return false;
    }
    if (first >= state.molecules || count == 0) {
        return true;
    }
    const std::uint64_t numMolecules = std::min<std::uint64_t>(count, state.molecules - first);

    std::vector<std::uint64_t> conformerOffsets;
    std::vector<std::uint64_t> titleOffsets;
    std::vector<std::uint64_t> atomOffsets;
    std::vector<char> titles;
    std::vector<double> frames;
    std::vector<std::uint32_t> fileIndices;
    std::vector<std::uint32_t> records;
    std::vector<std::uint8_t> elements;
    std::vector<double> xyz;
    std::vector<double> charges;
    std::vector<std::vector<Feature>> features;
    {
        HdfSession session;
        try {
            conformerOffsets =
                state.Offsets(ConformerOffsets, first, numMolecules, state.conformers);
            titleOffsets = state.Offsets(TitleOffsets, first, numMolecules, state.titleBytes);
            state.Read(TitleBytes, titleOffsets.front(), titleOffsets.back() - titleOffsets.front(),
                       titles);
            const std::uint64_t c0 = conformerOffsets.front();
            const std::uint64_t numConformers = conformerOffsets.back() - c0;
            atomOffsets = state.Offsets(AtomOffsets, c0, numConformers, state.atoms);
            state.Read(Frame, c0, numConformers, frames);
            state.Read(FileIndex, c0, numConformers, fileIndices);
            state.Read(RecordNumber, c0, numConformers, records);
            const std::uint64_t a0 = atomOffsets.front();
            const std::uint64_t numAtoms = atomOffsets.back() - a0;
            state.Read(Element, a0, numAtoms, elements);
            state.Read(AtomXyz, a0, numAtoms, xyz);
            state.Read(Charge, a0, numAtoms, charges);
            features = state.ReadFeatures(c0, numConformers);
        } catch (const LibraryError& error) {
            state.error = state.path + ": " + error.what();
            return false;
        }
    }

    const std::uint64_t c0 = conformerOffsets.front();
    const std::uint64_t a0 = atomOffsets.front();
    const std::uint64_t t0 = titleOffsets.front();
    out.resize(static_cast<std::size_t>(numMolecules));
    for (std::size_t m = 0; m < out.size(); ++m) {
        LibraryMolecule& molecule = out[m];
        molecule.title = Slice(titles, titleOffsets[m] - t0, titleOffsets[m + 1] - t0);
        for (std::uint64_t c = conformerOffsets[m]; c < conformerOffsets[m + 1]; ++c) {
            const std::size_t local = static_cast<std::size_t>(c - c0);
            if (fileIndices[local] >= state.fileNames.size()) {
                out.clear();
                state.error = state.path + ": corrupt file index of conformer " + std::to_string(c);
                return false;
            }
            LibraryConformer conformer;
            conformer.mol.SetTitle(molecule.title);
            for (std::uint64_t a = atomOffsets[local]; a < atomOffsets[local + 1]; ++a) {
                const std::size_t i = static_cast<std::size_t>(a - a0);
                conformer.mol.AddAtom(elements[i], xyz[3 * i], xyz[3 * i + 1], xyz[3 * i + 2],
                                      charges[i]);
            }
            conformer.features = std::move(features[local]);
            conformer.frame = QVChem::QVTrans(&frames[12 * local], &frames[12 * local + 9]);
            conformer.file = state.fileNames[fileIndices[local]];
            conformer.record = records[local];
            conformer.index = static_cast<std::size_t>(c);
            molecule.conformers.push_back(std::move(conformer));
        }
    }
    return true;
}

bool PreparedLibraryReader::LoadConformer(std::size_t index, Conformer& out) {
    State& state = *state_;
    if (!state.ok) {
        if (state.error.empty()) {
            state.error = state.path + ": the library is not open";
        }
        return false;
    }
    if (index >= state.conformers) {
        state.error = state.path + ": conformer " + std::to_string(index) +
                      " out of range (the library has " + std::to_string(state.conformers) +
                      " conformers)";
        return false;
    }
    const std::string where = state.path + ": conformer " + std::to_string(index) + ": ";

    std::vector<std::uint64_t> moleculeIndex;
    std::vector<std::uint64_t> titleOffsets;
    std::vector<char> title;
    std::vector<std::uint64_t> atomOffsets;
    std::vector<std::uint64_t> recordAtomOffsets;
    std::vector<std::uint64_t> sdOffsets;
    std::vector<std::uint32_t> fileIndex;
    std::vector<std::uint32_t> record;
    std::vector<std::uint8_t> elements;
    std::vector<double> xyz;
    std::vector<double> charges;
    std::vector<std::uint32_t> recordAtomIndices;
    std::vector<double> recordXyz;
    std::vector<char> text;
    std::vector<std::vector<Feature>> features;
    {
        HdfSession session;
        try {
            state.Read(ConformerMolecule, index, 1, moleculeIndex);
            if (moleculeIndex[0] >= state.molecules) {
                throw LibraryError("corrupt molecule index");
            }
            titleOffsets = state.Offsets(TitleOffsets, moleculeIndex[0], 1, state.titleBytes);
            state.Read(TitleBytes, titleOffsets[0], titleOffsets[1] - titleOffsets[0], title);
            atomOffsets = state.Offsets(AtomOffsets, index, 1, state.atoms);
            recordAtomOffsets = state.Offsets(RecordAtomOffsets, index, 1, state.recordAtoms);
            sdOffsets = state.Offsets(SdOffsets, index, 1, state.sdBytes);
            state.Read(FileIndex, index, 1, fileIndex);
            state.Read(RecordNumber, index, 1, record);
            const std::uint64_t numAtoms = atomOffsets[1] - atomOffsets[0];
            state.Read(Element, atomOffsets[0], numAtoms, elements);
            state.Read(AtomXyz, atomOffsets[0], numAtoms, xyz);
            state.Read(Charge, atomOffsets[0], numAtoms, charges);
            state.Read(RecordAtom, atomOffsets[0], numAtoms, recordAtomIndices);
            state.Read(RecordAtomXyz, recordAtomOffsets[0],
                       recordAtomOffsets[1] - recordAtomOffsets[0], recordXyz);
            state.Read(SdBytes, sdOffsets[0], sdOffsets[1] - sdOffsets[0], text);
            features = state.ReadFeatures(index, 1);
        } catch (const LibraryError& error) {
            state.error = where + error.what();
            return false;
        }
    }
    if (fileIndex[0] >= state.fileNames.size()) {
        state.error = where + "corrupt file index";
        return false;
    }

    // Parsed as the SD reader parses a record: sanitised, hydrogens kept.
    const SdRecordParts parts = SplitSdRecord(std::string(text.begin(), text.end()));
    std::unique_ptr<RDKit::RWMol> parsed;
    try {
        parsed.reset(RDKit::MolBlockToMol(parts.molBlock, true, false));
    } catch (const std::exception& error) {
        state.error = where + "RDKit could not parse the stored record: " + error.what();
        return false;
    }
    const std::size_t numRecordAtoms = recordXyz.size() / 3;
    if (parsed == nullptr || parsed->getNumConformers() == 0 ||
        parsed->getNumAtoms() != numRecordAtoms) {
        state.error = where + "the stored record does not match its coordinates";
        return false;
    }
    RDKit::Conformer& coordinates = parsed->getConformer();
    for (std::size_t a = 0; a < numRecordAtoms; ++a) {
        coordinates.setAtomPos(
            static_cast<unsigned int>(a),
            RDGeom::Point3D(recordXyz[3 * a], recordXyz[3 * a + 1], recordXyz[3 * a + 2]));
    }
    coordinates.set3D(true);

    QVChem::QVMol mol;
    mol.SetTitle(std::string(title.begin(), title.end()));
    std::vector<unsigned int> indices;
    for (std::size_t i = 0; i < elements.size(); ++i) {
        if (recordAtomIndices[i] >= numRecordAtoms ||
            static_cast<unsigned int>(
                parsed->getAtomWithIdx(recordAtomIndices[i])->getAtomicNum()) != elements[i]) {
            state.error = where + "the stored atoms do not match the stored record";
            return false;
        }
        mol.AddAtom(elements[i], xyz[3 * i], xyz[3 * i + 1], xyz[3 * i + 2], charges[i]);
        indices.push_back(recordAtomIndices[i]);
    }

    auto data = std::make_shared<Conformer::RecordData>();
    data->conformerId = static_cast<int>(coordinates.getId());
    data->molecule = std::shared_ptr<const RDKit::ROMol>(std::move(parsed));
    const RecordInfo info{state.fileNames[fileIndex[0]], record[0], mol.GetTitle(),
                          parts.properties};
    for (const Feature& feature : features.front()) {
        for (unsigned int atom : feature.atoms) {
            if (atom >= numRecordAtoms) {
                state.error = where + "a stored feature names an atom the record does not have";
                return false;
            }
        }
    }
    out = ConformerAccess::Make(std::move(mol), info, std::move(indices), std::move(data));
    out.SetFeatures(std::move(features.front()));
    return true;
}

bool IsPreparedLibrary(const std::string& path) {
    std::FILE* stream = std::fopen(path.c_str(), "rb");
    if (stream == nullptr) {
        return false;
    }
    unsigned char signature[sizeof(HdfSignature)];
    const std::size_t read = std::fread(signature, 1, sizeof(signature), stream);
    std::fclose(stream);
    return read == sizeof(signature) &&
           std::memcmp(signature, HdfSignature, sizeof(signature)) == 0;
}

}  // namespace hermite::io
