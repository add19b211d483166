"""Type stubs of the hermite package (see hermite/__init__.py)."""

from . import rdkit as rdkit
from ._hermite import (
    COMObjective as COMObjective,
    Centring as Centring,
    Expansion as Expansion,
    Gaussian as Gaussian,
    Gaussians as Gaussians,
    Grid as Grid,
    HermiteError as HermiteError,
    HermiteWarning as HermiteWarning,
    InertialFrame as InertialFrame,
    Molecule as Molecule,
    Options as Options,
    OverlapObjective as OverlapObjective,
    OverlayResult as OverlayResult,
    OverlaySettings as OverlaySettings,
    Scores as Scores,
    SelfOverlapObjective as SelfOverlapObjective,
    centre_of_mass as centre_of_mass,
    electrostatic_gaussians as electrostatic_gaussians,
    exact_overlap as exact_overlap,
    gaussians as gaussians,
    iterative_search_com as iterative_search_com,
    lmn_index as lmn_index,
    lmn_triples as lmn_triples,
    optimization_search_com as optimization_search_com,
    orient_by_moments_of_inertia as orient_by_moments_of_inertia,
    overlay as overlay,
    read_molecules as read_molecules,
    score as score,
    screen as screen,
    shape_gaussians as shape_gaussians,
)

__version__: str
__all__: list[str]
