/// \file
/// The structural check of a MOL2 record before RDKit's MOL2 parser sees it (internal to
/// hermite_io).
#pragma once

#include <string>

namespace hermite::io {

/// Refuses, with a `RecordError` naming the fault, a MOL2 record (the text from its
/// "@<TRIPOS>MOLECULE" line to the next one) whose structure does not hold together: a counts
/// line that cannot match the record, an ATOM or BOND section shorter than its count, a bond
/// to an atom the record does not have, a repeated section, or a UNITY_ATOM_ATTR block that
/// lacks the fields it announces. RDKit's parser reads such records past the ends of its
/// tables and lines, and crashes the process instead of failing. What is left (unknown atom
/// types, unreadable numbers, bad valences) RDKit refuses itself.
void CheckMol2Record(const std::string& text);

}  // namespace hermite::io
