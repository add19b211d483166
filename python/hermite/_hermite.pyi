"""Type stubs of the compiled core hermite._hermite (re-exported by the package hermite)."""

import os
from typing import (
    Any,
    Callable,
    Dict,
    Iterable,
    Iterator,
    List,
    NamedTuple,
    Optional,
    Sequence,
    Tuple,
    Union,
    overload,
)

import numpy as np
import numpy.typing as npt

_Float64Array = npt.NDArray[np.float64]
_Lambdas = Union[float, Tuple[float, float, float], npt.ArrayLike]
_Path = Union[str, bytes, os.PathLike[str], os.PathLike[bytes]]

class HermiteError(RuntimeError):
    """A fatal condition reported by the hermite library (the call was abandoned)."""

class HermiteWarning(RuntimeWarning):
    """A warning reported by the hermite library."""

# ---------------------------------------------------------------------------------------------
# Options

class Options:
    """Order and lambdas of a Hermite expansion."""

    def __init__(
        self,
        *,
        order: int = 5,
        lambdas: Optional[_Lambdas] = None,
        lambda_: Optional[float] = None,
        single_lambda: bool = True,
        optimal_lambdas: bool = True,
    ) -> None: ...
    order: int
    @property
    def lambdas(self) -> Tuple[float, float, float]: ...
    @lambdas.setter
    def lambdas(self, value: _Lambdas) -> None: ...
    single_lambda: bool
    optimal_lambdas: bool
    @property
    def num_coefficients(self) -> int: ...
    def describe(self) -> str: ...
    def copy(self) -> Options: ...
    def __copy__(self) -> Options: ...
    def __deepcopy__(self, memo: Dict[int, Any]) -> Options: ...
    def __eq__(self, other: object) -> bool: ...

# ---------------------------------------------------------------------------------------------
# Gaussians

class Gaussian(NamedTuple):
    """One Gaussian prefactor * exp(-exponent |r - centre|^2) of a Gaussians list."""

    prefactor: float
    exponent: float
    centre: Tuple[float, float, float]
    tag: int

class Gaussians:
    """An immutable list of isotropic 3-D Gaussians (single precision)."""

    def __init__(
        self,
        centres: Optional[npt.ArrayLike] = None,
        prefactors: Optional[npt.ArrayLike] = None,
        exponents: Optional[npt.ArrayLike] = None,
        tags: Optional[npt.ArrayLike] = None,
    ) -> None: ...
    @property
    def centres(self) -> _Float64Array: ...
    @property
    def prefactors(self) -> _Float64Array: ...
    @property
    def exponents(self) -> _Float64Array: ...
    @property
    def tags(self) -> npt.NDArray[np.int64]: ...
    def __len__(self) -> int: ...
    @overload
    def __getitem__(self, index: int) -> Gaussian: ...
    @overload
    def __getitem__(self, index: slice) -> Gaussians: ...
    def __iter__(self) -> Iterator[Gaussian]: ...
    def __add__(self, other: Gaussians) -> Gaussians: ...
    def translated(self, translation: npt.ArrayLike) -> Gaussians: ...
    def rotated(self, matrix: npt.ArrayLike) -> Gaussians: ...
    def copy(self) -> Gaussians: ...
    def __copy__(self) -> Gaussians: ...
    def __deepcopy__(self, memo: Dict[int, Any]) -> Gaussians: ...

def gaussians(
    centres: npt.ArrayLike,
    prefactors: npt.ArrayLike,
    exponents: npt.ArrayLike,
    tags: Optional[npt.ArrayLike] = None,
) -> Gaussians: ...
def shape_gaussians(coords: npt.ArrayLike) -> Gaussians: ...
def electrostatic_gaussians(
    coords: npt.ArrayLike, charges: npt.ArrayLike, width: float = 1.0
) -> Gaussians: ...
def exact_overlap(a: Gaussians, b: Gaussians) -> float: ...

# ---------------------------------------------------------------------------------------------
# Expansions

class Grid(NamedTuple):
    """A rendered density: values[ix, iy, iz] at origin + spacing * (ix, iy, iz)."""

    values: npt.NDArray[np.float32]
    origin: _Float64Array
    spacing: float

class Expansion:
    """The Hermite expansion of a Gaussian density."""

    def __init__(self, gaussians: Gaussians, options: Optional[Options] = None) -> None: ...
    @property
    def coefficients(self) -> _Float64Array: ...
    @property
    def coefficients_lambda_derivative(self) -> _Float64Array: ...
    @property
    def k_coefficients(self) -> _Float64Array: ...
    @property
    def options(self) -> Options: ...
    @property
    def order(self) -> int: ...
    @property
    def lambdas(self) -> Tuple[float, float, float]: ...
    @property
    def num_coefficients(self) -> int: ...
    @property
    def self_overlap(self) -> float: ...
    @property
    def lambda_derivative(self) -> float: ...
    @property
    def extent(self) -> float: ...
    def coefficient(self, l: int, m: int, n: int) -> float: ...
    def rotate(self, matrix: npt.ArrayLike) -> None: ...
    def render(
        self,
        spacing: float,
        *,
        extent: Optional[float] = None,
        transform: Optional[npt.ArrayLike] = None,
    ) -> Grid: ...
    def copy(self) -> Expansion: ...
    def __copy__(self) -> Expansion: ...
    def __deepcopy__(self, memo: Dict[int, Any]) -> Expansion: ...
    def __getstate__(self) -> Tuple[Gaussians, Options, List[_Float64Array]]: ...
    def __setstate__(self, state: Tuple[Gaussians, Options, List[_Float64Array]]) -> None: ...

def lmn_index(l: int, m: int, n: int) -> int: ...
def lmn_triples(order: int) -> npt.NDArray[np.int64]: ...

# ---------------------------------------------------------------------------------------------
# Objectives, centring and orientation

class OverlapObjective:
    """Minus the overlap of a turned reference and a moved fit; six variables."""

    def __init__(
        self,
        reference: Gaussians,
        fit: Gaussians,
        options: Optional[Options] = None,
        fit_options: Optional[Options] = None,
    ) -> None: ...
    @property
    def num_variables(self) -> int: ...
    @property
    def reference_options(self) -> Options: ...
    @property
    def fit_options(self) -> Options: ...
    @property
    def reference_self_overlap(self) -> float: ...
    @property
    def fit_self_overlap(self) -> float: ...
    def value(self, x: npt.ArrayLike) -> float: ...
    def __call__(self, x: npt.ArrayLike) -> float: ...
    def value_and_gradient(self, x: npt.ArrayLike) -> Tuple[float, _Float64Array]: ...

class SelfOverlapObjective:
    """Minus the self-overlap as a function of the log lambdas; one or three variables."""

    def __init__(self, gaussians: Gaussians, options: Optional[Options] = None) -> None: ...
    @property
    def num_variables(self) -> int: ...
    def value(self, x: npt.ArrayLike) -> float: ...
    def __call__(self, x: npt.ArrayLike) -> float: ...
    def value_and_gradient(self, x: npt.ArrayLike) -> Tuple[float, _Float64Array]: ...
    def gradient_and_hessian(self, x: npt.ArrayLike) -> Tuple[_Float64Array, _Float64Array]: ...

class COMObjective:
    """|c(t)|^2, the squared Hermite centre of mass after a translation t; three variables."""

    def __init__(self, gaussians: Gaussians, options: Optional[Options] = None) -> None: ...
    @property
    def num_variables(self) -> int: ...
    def value(self, x: npt.ArrayLike) -> float: ...
    def __call__(self, x: npt.ArrayLike) -> float: ...
    def value_and_gradient(self, x: npt.ArrayLike) -> Tuple[float, _Float64Array]: ...
    def value_gradient_hessian(
        self, x: npt.ArrayLike
    ) -> Tuple[float, _Float64Array, _Float64Array]: ...

class Centring(NamedTuple):
    """Result of iterative_search_com."""

    centre: _Float64Array
    gaussians: Gaussians

class InertialFrame(NamedTuple):
    """Result of orient_by_moments_of_inertia."""

    translation: _Float64Array
    rotation: _Float64Array
    inertia: _Float64Array
    eigenvalues: _Float64Array
    gaussians: Gaussians

def centre_of_mass(
    gaussians: Gaussians, *, order: int = 5, lambdas: _Lambdas = 1.0
) -> _Float64Array: ...
def iterative_search_com(
    gaussians: Gaussians,
    *,
    order: int = 5,
    lambdas: _Lambdas = 1.0,
    tolerance: float = 1e-4,
    max_iterations: int = 100,
) -> Centring: ...
def optimization_search_com(
    gaussians: Gaussians, *, order: int = 5, lambda_: float = 1.0
) -> _Float64Array: ...
def orient_by_moments_of_inertia(
    gaussians: Gaussians, *, order: int = 5, lambdas: _Lambdas = 1.0
) -> InertialFrame: ...

# ---------------------------------------------------------------------------------------------
# Molecules and overlays

class Molecule:
    """Atoms (elements, coordinates, partial charges), a title and colour features."""

    def __init__(
        self,
        atomic_numbers: npt.ArrayLike,
        coords: npt.ArrayLike,
        charges: Optional[npt.ArrayLike] = None,
        title: str = "",
        *,
        features: Optional[npt.ArrayLike] = None,
    ) -> None: ...
    @property
    def atomic_numbers(self) -> npt.NDArray[np.int32]: ...
    @property
    def coords(self) -> _Float64Array: ...
    @property
    def charges(self) -> _Float64Array: ...
    @property
    def features(self) -> _Float64Array: ...
    title: str
    @property
    def num_atoms(self) -> int: ...
    def __len__(self) -> int: ...
    def shape_gaussians(self) -> Gaussians: ...
    def electrostatic_gaussians(self, width: float = 1.0) -> Gaussians: ...
    def copy(self) -> Molecule: ...
    def __copy__(self) -> Molecule: ...
    def __deepcopy__(self, memo: Dict[int, Any]) -> Molecule: ...

class OverlaySettings:
    """Settings of an overlay."""

    def __init__(
        self,
        *,
        order: int = ...,
        lambda_: float = ...,
        large_lambda: float = ...,
        large_lambda_atoms: int = ...,
        large_scan_rotations: int = ...,
        large_search_starts: int = ...,
        large_refine_candidates: int = ...,
        effort: str = ...,
        scan_rotations: int = ...,
        starts: int = ...,
        scan_shift: float = ...,
        search_starts: int = ...,
        colour_search_starts: int = ...,
        seed: int = ...,
        relative_tolerance: float = ...,
        iteration_limit: int = ...,
        refine_candidates: int = ...,
        colour_refine_candidates: int = ...,
        refine_iteration_limit: int = ...,
        refine_tolerance: float = ...,
        refine_field_atoms: int = ...,
        refine_field_spacing: float = ...,
        electrostatics: bool = ...,
        electrostatic_width: float = ...,
        electrostatic_weight: float = ...,
        colour: bool = ...,
        colour_weight: float = ...,
        colour_order: int = ...,
    ) -> None: ...
    order: int
    lambda_: float
    large_lambda: float
    large_lambda_atoms: int
    large_scan_rotations: int
    large_search_starts: int
    large_refine_candidates: int
    scan_rotations: int
    starts: int
    scan_shift: float
    search_starts: int
    colour_search_starts: int
    seed: int
    relative_tolerance: float
    iteration_limit: int
    refine_candidates: int
    colour_refine_candidates: int
    refine_iteration_limit: int
    refine_tolerance: float
    refine_field_atoms: int
    refine_field_spacing: float
    electrostatics: bool
    electrostatic_width: float
    electrostatic_weight: float
    colour: bool
    colour_weight: float
    colour_order: int
    def copy(self) -> OverlaySettings: ...
    def __copy__(self) -> OverlaySettings: ...
    def __deepcopy__(self, memo: Dict[int, Any]) -> OverlaySettings: ...
    def __getstate__(self) -> Dict[str, Union[int, float, bool]]: ...
    def __setstate__(self, state: Dict[str, Union[int, float, bool]]) -> None: ...

class Scores:
    """Scores of an overlay."""

    @property
    def shape_tanimoto(self) -> float: ...
    @property
    def hermite_tanimoto(self) -> float: ...
    @property
    def tversky_query(self) -> float: ...
    @property
    def tversky_fit(self) -> float: ...
    @property
    def es_tanimoto(self) -> float: ...
    @property
    def es_carbo(self) -> float: ...
    @property
    def es_combo(self) -> float: ...
    @property
    def colour_tanimoto(self) -> float: ...
    @property
    def combo(self) -> float: ...
    @property
    def overlap(self) -> float: ...
    @property
    def colour_overlap(self) -> float: ...
    @property
    def query_self_overlap(self) -> float: ...
    @property
    def fit_self_overlap(self) -> float: ...
    def as_dict(self) -> Dict[str, float]: ...
    def __getstate__(self) -> Dict[str, float]: ...
    def __setstate__(self, state: Dict[str, float]) -> None: ...

class OverlayResult:
    """Scores and rigid motion of an overlaid fit molecule."""

    @property
    def scores(self) -> Scores: ...
    @property
    def transform(self) -> _Float64Array: ...
    @property
    def rotation(self) -> _Float64Array: ...
    @property
    def translation(self) -> _Float64Array: ...
    @property
    def aligned_coords(self) -> _Float64Array: ...
    def apply(self, coords: npt.ArrayLike) -> _Float64Array: ...
    @property
    def title(self) -> str: ...
    @property
    def query_title(self) -> str: ...
    @property
    def electrostatics(self) -> bool: ...
    @property
    def colour(self) -> bool: ...
    @property
    def conformer(self) -> int: ...
    @property
    def query_conformer(self) -> int: ...
    @property
    def hermite_evaluations(self) -> int: ...
    @property
    def exact_evaluations(self) -> int: ...
    def __getstate__(self) -> Tuple[Any, ...]: ...
    def __setstate__(self, state: Tuple[Any, ...]) -> None: ...

def overlay(
    query: Molecule,
    fit: Molecule,
    *,
    settings: Optional[OverlaySettings] = None,
    order: int = ...,
    lambda_: float = ...,
    large_lambda: float = ...,
    large_lambda_atoms: int = ...,
    large_scan_rotations: int = ...,
    large_search_starts: int = ...,
    large_refine_candidates: int = ...,
    effort: str = ...,
    scan_rotations: int = ...,
    starts: int = ...,
    scan_shift: float = ...,
    search_starts: int = ...,
    colour_search_starts: int = ...,
    seed: int = ...,
    relative_tolerance: float = ...,
    iteration_limit: int = ...,
    refine_candidates: int = ...,
    colour_refine_candidates: int = ...,
    refine_iteration_limit: int = ...,
    refine_tolerance: float = ...,
    refine_field_atoms: int = ...,
    refine_field_spacing: float = ...,
    electrostatics: bool = ...,
    electrostatic_width: float = ...,
    electrostatic_weight: float = ...,
    colour: bool = ...,
    colour_weight: float = ...,
    colour_order: int = ...,
) -> OverlayResult: ...
def score(
    query: Molecule,
    fit: Molecule,
    *,
    settings: Optional[OverlaySettings] = None,
    order: int = ...,
    lambda_: float = ...,
    large_lambda: float = ...,
    large_lambda_atoms: int = ...,
    large_scan_rotations: int = ...,
    large_search_starts: int = ...,
    large_refine_candidates: int = ...,
    effort: str = ...,
    scan_rotations: int = ...,
    starts: int = ...,
    scan_shift: float = ...,
    search_starts: int = ...,
    colour_search_starts: int = ...,
    seed: int = ...,
    relative_tolerance: float = ...,
    iteration_limit: int = ...,
    refine_candidates: int = ...,
    colour_refine_candidates: int = ...,
    refine_iteration_limit: int = ...,
    refine_tolerance: float = ...,
    refine_field_atoms: int = ...,
    refine_field_spacing: float = ...,
    electrostatics: bool = ...,
    electrostatic_width: float = ...,
    electrostatic_weight: float = ...,
    colour: bool = ...,
    colour_weight: float = ...,
    colour_order: int = ...,
) -> OverlayResult: ...
def screen(
    query: Union[Molecule, Sequence[Molecule]],
    molecules: Iterable[Union[Molecule, Sequence[Molecule]]],
    *,
    threads: int = 0,
    score_only: bool = False,
    progress: Optional[Callable[[int, int], None]] = None,
    rank_by: str = "shape",
    settings: Optional[OverlaySettings] = None,
    order: int = ...,
    lambda_: float = ...,
    large_lambda: float = ...,
    large_lambda_atoms: int = ...,
    large_scan_rotations: int = ...,
    large_search_starts: int = ...,
    large_refine_candidates: int = ...,
    effort: str = ...,
    scan_rotations: int = ...,
    starts: int = ...,
    scan_shift: float = ...,
    search_starts: int = ...,
    colour_search_starts: int = ...,
    seed: int = ...,
    relative_tolerance: float = ...,
    iteration_limit: int = ...,
    refine_candidates: int = ...,
    colour_refine_candidates: int = ...,
    refine_iteration_limit: int = ...,
    refine_tolerance: float = ...,
    refine_field_atoms: int = ...,
    refine_field_spacing: float = ...,
    electrostatics: bool = ...,
    electrostatic_width: float = ...,
    electrostatic_weight: float = ...,
    colour: bool = ...,
    colour_weight: float = ...,
    colour_order: int = ...,
) -> List[OverlayResult]: ...
