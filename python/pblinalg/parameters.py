"""Values of parameters, as a run takes them."""

from __future__ import annotations

import reprlib
from collections.abc import Mapping, Sequence
from typing import Any, Union

import numpy as np
from numpy.typing import ArrayLike, NDArray

from ._core import GateMethods, Parameter, parameter_count, parameters_of, require_finite

#: One value for each parameter: in order, or by parameter or name.
Values = Union[ArrayLike, Mapping[Union[Parameter, str], float]]
#: Many sets of values: an array (rows, parameters), or arrays (rows,) by parameter or name.
ValueRows = Union[ArrayLike, Mapping[Union[Parameter, str], ArrayLike]]


def values_in_order(circuit: GateMethods, values: Values | None) -> NDArray[np.float64]:
    """One finite number for each parameter of a circuit. ValueError names the first one without a
    value, and what is given for no parameter."""
    if isinstance(values, np.ndarray) and values.dtype == np.float64:
        # Where all is well nobody looks at parameters one by one.
        if values.shape == (parameter_count(circuit),) and np.isfinite(values).all():
            return np.ascontiguousarray(values)
    parameters = parameters_of(circuit)
    if isinstance(values, Mapping):
        numbers = _by_name(parameters, values)
    else:
        if isinstance(values, (str, bytes)) or not (values is None or hasattr(values, "__len__")):
            raise TypeError(
                f"values must be a sequence of numbers or a dict by parameter, got {values!r}"
            )
        numbers = [] if values is None else list(values)  # type: ignore[arg-type]
        if len(numbers) < len(parameters):
            raise ValueError(
                f"values: parameter {parameters[len(numbers)].name!r} has no value; expected "
                f"{len(parameters)} values, got {len(numbers)}"
            )
        if len(numbers) > len(parameters):
            raise ValueError(
                f"values holds {len(numbers)} elements; expected {len(parameters)}, one for each "
                "parameter"
            )
    for parameter, number in zip(parameters, numbers):
        require_finite(number, f"values: parameter {parameter.name!r}")
    return np.array(numbers, dtype=np.float64)


def value_rows(circuit: GateMethods, values: ValueRows) -> NDArray[np.float64]:
    """A C-contiguous float64 array with a row for each set and a finite number in it for each
    parameter of a circuit. ValueError and TypeError as in `values_in_order`, with the row."""
    parameters = parameters_of(circuit)
    if isinstance(values, Mapping):
        columns = [
            _numbers(column, f"values: parameter {parameter.name!r}")
            for parameter, column in zip(parameters, _by_name(parameters, values))
        ]
        lengths = {len(column): i for i, column in enumerate(columns) if column.ndim}
        for parameter, column in zip(parameters, columns):
            if column.ndim > 1 or len(lengths) > 1:
                raise ValueError(
                    f"values: parameter {parameter.name!r} has values of shape {column.shape}; "
                    "expected one-dimensional arrays of one length"
                )
        rows = np.empty((next(iter(lengths), 1), len(columns)))
        for place, column in enumerate(columns):
            rows[:, place] = column
    else:
        rows = _numbers(values, "values")
        if rows.ndim != 2 or rows.shape[1] != len(parameters):
            missing = ""
            if rows.ndim == 2 and rows.shape[1] < len(parameters):
                missing = f": parameter {parameters[rows.shape[1]].name!r} has no value"
            raise ValueError(
                f"values has shape {rows.shape}; expected (rows, {len(parameters)}), one column "
                f"for each parameter{missing}"
            )
    wrong = np.argwhere(~np.isfinite(rows))
    if len(wrong):
        row, place = (int(number) for number in wrong[0])
        raise ValueError(
            f"values, row {row}: parameter {parameters[place].name!r} must be a finite number, "
            f"got {rows[row, place]}"
        )
    return np.ascontiguousarray(rows)


def _numbers(values: ArrayLike, name: str) -> NDArray[np.float64]:
    try:
        array = np.asarray(values)
        if array.dtype.kind in "iuf":
            return np.asarray(array, dtype=np.float64)
    except ValueError:
        pass
    raise TypeError(f"{name} must be an array of real numbers, got {reprlib.repr(values)}")


def _by_name(parameters: Sequence[Parameter], values: Mapping[Any, Any]) -> list[Any]:
    """What is given for each parameter, and nothing else."""
    given = {_name_of(key): value for key, value in values.items()}
    numbers = []
    for parameter in parameters:
        if parameter.name not in given:
            raise ValueError(f"values: parameter {parameter.name!r} has no value")
        numbers.append(given.pop(parameter.name))
    if given:
        raise ValueError(f"values: {next(iter(given))!r} is no parameter of the circuit")
    return numbers


def _name_of(key: Parameter | str) -> str:
    if isinstance(key, str):
        return key
    if isinstance(key, Parameter) and (key.scale, key.offset) == (1, 0):
        return key.name
    raise TypeError(f"values: keys must be parameters or their names, got {key!r}")
