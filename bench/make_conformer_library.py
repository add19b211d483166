#!/usr/bin/env python3
"""Makes the FABP4 conformer libraries that bench/screen_scale.py screens.

From the FABP4 set of DUD-E (/work/shared/data/dude-fabp4: actives_final.mol2.gz, then
decoys_final.mol2.gz; one record per title, the first), into a cache directory outside the
repository (default /work/bench-data):
  * fabp4-etkdg-C.sdf   C ETKDGv3 conformers per molecule (fixed seed, hydrogens added for the
                        embedding and written; a molecule of which one conformer cannot be
                        embedded in 200 attempts is left out and reported); consecutive records
                        with the same title are the conformers of one molecule;
  * fabp4-N.sdf         for each --target N: that file repeated under new titles (title + "~copyK"
                        from the second copy on) until it holds at least N conformers, cut at a
                        molecule boundary; written as a stream;
  * fabp4-smiles.smi    "SMILES name" of each unique molecule (stereochemistry from the 3-D pose);
  * query.sdf           the crystal ligand (crystal_ligand.mol2) as SD, its atoms as in the file;
  * manifest.json       conformer and molecule counts, sizes and generation times of the above.

Files that exist are kept (delete one to make it again); each is written to a temporary name
and renamed when complete. Run with Debian's Python, which has RDKit:

    /usr/bin/python3 bench/make_conformer_library.py [--data-dir DIR] [--target 20000 200000]
"""

import argparse
import gzip
import json
import multiprocessing
import os
import sys
import time

DEFAULT_DATA_DIR = "/work/bench-data"
DEFAULT_SOURCE_DIR = "/work/shared/data/dude-fabp4"
SOURCE_FILES = ("actives_final.mol2.gz", "decoys_final.mol2.gz")
QUERY_FILE = "crystal_ligand.mol2"
DEFAULT_CONFORMERS = 10
DEFAULT_SEED = 42
DEFAULT_TARGETS = (20000, 200000)
COPY_SEPARATOR = "~copy"
PROBE_ATTEMPTS = 200  # embedding attempts of the probe conformer


def log(message):
    print(f"make_conformer_library: {message}", file=sys.stderr, flush=True)


def base_name(conformers):
    return f"fabp4-etkdg-{conformers}.sdf"


def library_name(target):
    return f"fabp4-{target}.sdf"


def smiles_name():
    return "fabp4-smiles.smi"


def query_name():
    return "query.sdf"


# ---------------------------------------------------------------------------------------------
# manifest


def read_manifest(data_dir):
    path = os.path.join(data_dir, "manifest.json")
    try:
        with open(path) as handle:
            return json.load(handle)
    except (OSError, ValueError):
        return {}


def record_in_manifest(data_dir, name, **facts):
    manifest = read_manifest(data_dir)
    facts["bytes"] = os.path.getsize(os.path.join(data_dir, name))
    manifest[name] = facts
    path = os.path.join(data_dir, "manifest.json")
    with open(path + ".tmp", "w") as handle:
        json.dump(manifest, handle, indent=1, sort_keys=True)
        handle.write("\n")
    os.replace(path + ".tmp", path)


def count_sd(path):
    """Counts (records, molecules) of an SD file, molecules being runs of records with the same
    title; streams the file."""
    records = molecules = 0
    previous = None
    at_start = True
    with open(path, "rb") as handle:
        for line in handle:
            if at_start:
                title = line.rstrip(b"\r\n")
                records += 1
                if title != previous:
                    molecules += 1
                previous = title
                at_start = False
            elif line.startswith(b"$$$$"):
                at_start = True
    return records, molecules


def sd_counts(data_dir, name):
    """(conformers, molecules) of a file of the cache: from the manifest when it describes the
    file as it is, otherwise counted (and recorded)."""
    path = os.path.join(data_dir, name)
    facts = read_manifest(data_dir).get(name)
    if facts and facts.get("bytes") == os.path.getsize(path) and "conformers" in facts:
        return facts["conformers"], facts["molecules"]
    conformers, molecules = count_sd(path)
    facts = dict(facts or {})
    facts.update(conformers=conformers, molecules=molecules)
    facts.pop("bytes", None)
    record_in_manifest(data_dir, name, **facts)
    return conformers, molecules


# ---------------------------------------------------------------------------------------------
# sources


def mol2_records(source_dir):
    """Yields (title, MOL2 text) of the first record of each title, actives first."""
    seen = set()
    for file_name in SOURCE_FILES:
        path = os.path.join(source_dir, file_name)
        with gzip.open(path, "rt") as handle:
            lines = []
            for line in handle:
                if line.startswith("@<TRIPOS>MOLECULE") and lines:
                    yield from _first_of_title(lines, seen)
                    lines = []
                lines.append(line)
            if lines:
                yield from _first_of_title(lines, seen)


def _first_of_title(lines, seen):
    if not lines[0].startswith("@<TRIPOS>MOLECULE") or len(lines) < 2:
        return
    title = lines[1].strip()
    if title in seen:
        return
    seen.add(title)
    yield title, "".join(lines)


def parse_mol2(block):
    """The molecule of a MOL2 record with its hydrogens, or None."""
    from rdkit import Chem

    mol = Chem.MolFromMol2Block(block, sanitize=True, removeHs=False)
    if mol is None:
        return None
    Chem.AssignStereochemistryFrom3D(mol)
    return mol


# ---------------------------------------------------------------------------------------------
# conformers


def _conformer_worker(job):
    """Embeds one molecule; returns (title, SD text, conformers, smiles or None, message)."""
    title, block, conformers, seed = job
    from rdkit import Chem, RDLogger
    from rdkit.Chem import rdDistGeom

    RDLogger.DisableLog("rdApp.*")
    mol = parse_mol2(block)
    if mol is None:
        return title, "", 0, None, "MOL2 record not read"
    heavy = Chem.RemoveHs(mol)
    smiles = Chem.MolToSmiles(heavy)
    mol = Chem.AddHs(heavy)
    params = rdDistGeom.ETKDGv3()
    params.randomSeed = seed
    params.numThreads = 1
    # A few caged polycycles of the decoys never satisfy their chiral constraints, and the
    # default number of attempts (10 per atom, for each conformer) then takes tens of minutes:
    # a molecule of which one conformer cannot be embedded in PROBE_ATTEMPTS attempts is left
    # out. The conformers written are those of the default settings.
    probe = rdDistGeom.ETKDGv3()
    probe.randomSeed = seed
    probe.maxIterations = PROBE_ATTEMPTS
    if rdDistGeom.EmbedMolecule(Chem.Mol(mol), probe) < 0:
        return title, "", 0, smiles, "no conformer in the probe embedding (left out)"
    ids = list(rdDistGeom.EmbedMultipleConfs(mol, conformers, params))
    if not ids:
        return title, "", 0, smiles, "no conformer embedded (left out)"
    mol.SetProp("_Name", title)
    text = "".join(Chem.MolToMolBlock(mol, confId=cid) + "$$$$\n" for cid in ids)
    message = "" if len(ids) == conformers else f"{len(ids)} conformers embedded"
    return title, text, len(ids), smiles, message


def make_base(data_dir, source_dir, conformers, seed, processes):
    """Writes fabp4-etkdg-C.sdf (and fabp4-smiles.smi on the way) unless it exists."""
    name = base_name(conformers)
    path = os.path.join(data_dir, name)
    if os.path.exists(path):
        log(f"{path} exists, kept")
        return path
    jobs = [(title, block, conformers, seed) for title, block in mol2_records(source_dir)]
    log(f"{len(jobs)} unique molecules; embedding {conformers} ETKDGv3 conformers each "
        f"(seed {seed}) on {processes} processes into {path}")
    start = time.perf_counter()
    written_molecules = written_conformers = 0
    smiles_lines = []
    problems = []
    with multiprocessing.Pool(processes) as pool, open(path + ".tmp", "w") as out:
        for done, (title, text, count, smiles, message) in enumerate(
                pool.imap(_conformer_worker, jobs, chunksize=2), 1):
            if smiles is not None:
                smiles_lines.append(f"{smiles} {title}\n")
            if message:
                problems.append(f"{title}: {message}")
                log(f"{title}: {message}")
            if count:
                out.write(text)
                written_molecules += 1
                written_conformers += count
            if done % 100 == 0 or done == len(jobs):
                elapsed = time.perf_counter() - start
                log(f"{done}/{len(jobs)} molecules, {written_conformers} conformers, "
                    f"{elapsed:.0f} s ({done / elapsed:.1f} molecules/s)")
    os.replace(path + ".tmp", path)
    seconds = time.perf_counter() - start
    record_in_manifest(data_dir, name, conformers=written_conformers,
                       molecules=written_molecules, seconds=round(seconds, 1),
                       processes=processes, seed=seed, problems=problems)
    log(f"wrote {path}: {written_molecules} molecules, {written_conformers} conformers "
        f"in {seconds:.0f} s")
    smiles_path = os.path.join(data_dir, smiles_name())
    if not os.path.exists(smiles_path):
        _write_smiles(data_dir, smiles_lines)
    return path


def _write_smiles(data_dir, lines):
    path = os.path.join(data_dir, smiles_name())
    with open(path + ".tmp", "w") as out:
        out.writelines(lines)
    os.replace(path + ".tmp", path)
    record_in_manifest(data_dir, smiles_name(), molecules=len(lines))
    log(f"wrote {path}: {len(lines)} molecules")


def make_smiles(data_dir, source_dir):
    """Writes fabp4-smiles.smi unless it exists (without embedding anything)."""
    path = os.path.join(data_dir, smiles_name())
    if os.path.exists(path):
        log(f"{path} exists, kept")
        return path
    from rdkit import Chem, RDLogger

    RDLogger.DisableLog("rdApp.*")
    lines = []
    for title, block in mol2_records(source_dir):
        mol = parse_mol2(block)
        if mol is not None:
            lines.append(f"{Chem.MolToSmiles(Chem.RemoveHs(mol))} {title}\n")
    _write_smiles(data_dir, lines)
    return path


def make_query(data_dir, source_dir):
    """Writes query.sdf (the crystal ligand, atoms as in the MOL2 file) unless it exists."""
    path = os.path.join(data_dir, query_name())
    if os.path.exists(path):
        log(f"{path} exists, kept")
        return path
    from rdkit import Chem

    with open(os.path.join(source_dir, QUERY_FILE)) as handle:
        mol = parse_mol2(handle.read())
    if mol is None:
        sys.exit(f"make_conformer_library: {QUERY_FILE} could not be read")
    writer = Chem.SDWriter(path + ".tmp")
    writer.write(mol)
    writer.close()
    os.replace(path + ".tmp", path)
    record_in_manifest(data_dir, query_name(), conformers=1, molecules=1,
                       atoms=mol.GetNumAtoms(), heavy_atoms=mol.GetNumHeavyAtoms())
    log(f"wrote {path}: {mol.GetProp('_Name')}, {mol.GetNumAtoms()} atoms "
        f"({mol.GetNumHeavyAtoms()} heavy)")
    return path


# ---------------------------------------------------------------------------------------------
# larger libraries


def make_library(data_dir, base_path, target):
    """Writes fabp4-N.sdf: the base file repeated under new titles until it holds at least N
    conformers, cut where a molecule ends. Streams both files."""
    name = library_name(target)
    path = os.path.join(data_dir, name)
    if os.path.exists(path):
        log(f"{path} exists, kept")
        return path
    log(f"writing {path} (at least {target} conformers)")
    start = time.perf_counter()
    records = molecules = 0
    copy = 0
    done = False
    with open(path + ".tmp", "wb") as out:
        while not done:
            suffix = f"{COPY_SEPARATOR}{copy}".encode() if copy else b""
            previous = None
            at_start = True
            copied = 0
            with open(base_path, "rb") as handle:
                for line in handle:
                    if at_start:
                        title = line.rstrip(b"\r\n")
                        if title != previous:
                            if records >= target:
                                done = True
                                break
                            molecules += 1
                            previous = title
                        records += 1
                        copied += 1
                        line = title + suffix + b"\n"
                        at_start = False
                    elif line.startswith(b"$$$$"):
                        at_start = True
                    out.write(line)
            if copied == 0:
                sys.exit(f"make_conformer_library: {base_path} holds no records")
            if not done and records >= target:
                done = True
            copy += 1
            log(f"{path}: {records} conformers after {copy} cop{'y' if copy == 1 else 'ies'}")
    os.replace(path + ".tmp", path)
    seconds = time.perf_counter() - start
    record_in_manifest(data_dir, name, conformers=records, molecules=molecules,
                       seconds=round(seconds, 1), copies=copy)
    log(f"wrote {path}: {molecules} molecules, {records} conformers in {seconds:.0f} s")
    return path


def ensure(data_dir=DEFAULT_DATA_DIR, targets=DEFAULT_TARGETS, source_dir=DEFAULT_SOURCE_DIR,
           conformers=DEFAULT_CONFORMERS, seed=DEFAULT_SEED, processes=2):
    """Makes whatever is missing; returns a dict of paths: base, smiles, query and
    libraries {target: path}."""
    os.makedirs(data_dir, exist_ok=True)
    paths = {"query": make_query(data_dir, source_dir)}
    paths["base"] = make_base(data_dir, source_dir, conformers, seed, processes)
    paths["smiles"] = make_smiles(data_dir, source_dir)
    paths["libraries"] = {target: make_library(data_dir, paths["base"], target)
                          for target in targets}
    return paths


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--data-dir", default=DEFAULT_DATA_DIR,
                        help=f"cache directory (default {DEFAULT_DATA_DIR})")
    parser.add_argument("--source-dir", default=DEFAULT_SOURCE_DIR,
                        help=f"FABP4 set (default {DEFAULT_SOURCE_DIR})")
    parser.add_argument("--conformers", type=int, default=DEFAULT_CONFORMERS,
                        help="conformers per molecule (default %(default)s)")
    parser.add_argument("--seed", type=int, default=DEFAULT_SEED,
                        help="ETKDG random seed (default %(default)s)")
    parser.add_argument("--processes", type=int, default=2,
                        help="embedding processes (default %(default)s)")
    parser.add_argument("--target", type=int, nargs="+", default=list(DEFAULT_TARGETS),
                        help="sizes of the repeated libraries, in conformers "
                                  "(default %(default)s)")
    arguments = parser.parse_args()
    if arguments.conformers < 1 or arguments.processes < 1 or min(arguments.target) < 1:
        parser.error("--conformers, --processes and --target must be positive")
    start = time.perf_counter()
    paths = ensure(arguments.data_dir, arguments.target, arguments.source_dir,
                   arguments.conformers, arguments.seed, arguments.processes)
    files = [paths["query"], paths["smiles"], paths["base"], *paths["libraries"].values()]
    manifest = read_manifest(arguments.data_dir)
    for path in files:
        facts = manifest.get(os.path.basename(path), {})
        count = facts.get("conformers", facts.get("molecules", "?"))
        print(f"{path}\t{os.path.getsize(path) / 1e6:.1f} MB\t{count}")
    log(f"done in {time.perf_counter() - start:.0f} s")


if __name__ == "__main__":
    main()
