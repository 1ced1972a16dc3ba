"""The generated source of the network's weights."""
import numpy as np


def numbers(values, form):
    lines, line = [], "   "
    for value in values:
        text = f" {form(value)},"
        if len(line) + len(text) > 100:
            lines.append(line)
            line = "   "
        line += text
    return "\n".join(lines + [line])


def in_blocks(weights):
    """A matrix in blocks of 4 rows x 16 columns, block by block and row by row."""
    rows, columns = weights.shape
    return weights.reshape(rows // 4, 4, columns // 16, 16).transpose(0, 2, 1, 3).ravel()


SHAPES = {                      # rows and columns of the layers, as presence_weights.h names them
    "INPUT_LAYER": ("HIDDEN", "PADDED_INPUTS"),
    "INPUT_GATES": ("3 * HIDDEN", "HIDDEN"),
    "STATE_GATES": ("3 * HIDDEN", "HIDDEN"),
    "OUTPUT_LAYER": ("OUTPUTS", "2 * HIDDEN"),
}


def source(layers, provenance):
    """Text of presence_weights.cpp; provenance is a list of lines."""
    head = "\n".join(f"// {line}".rstrip() for line in provenance)
    parts = [f'{head}\n// clang-format off\n#include "suppressor/presence_weights.h"\n\nnamespace nax::res {{\n']
    for name, (weights, scale, bias) in layers.items():
        rows, columns = SHAPES[name]
        low = name.lower()
        parts.append(f"static constexpr int8_t {low}_weights[] = {{\n{numbers(in_blocks(weights), str)}\n}};\n"
                     f"static constexpr float {low}_scale[] = {{\n{numbers(scale, literal)}\n}};\n"
                     f"static constexpr float {low}_bias[] = {{\n{numbers(bias, literal)}\n}};\n"
                     f"static_assert(sizeof {low}_weights == {rows} * {columns});\n"
                     f"const Layer {name} = {{{rows}, {columns}, {low}_weights, {low}_scale, {low}_bias}};\n")
    parts.append("} // namespace nax::res\n")
    return "\n".join(parts)


def literal(value):
    """The float32 as decimal digits that give it back."""
    return f"{np.float32(value):.9g}f" if "." in f"{value:.9g}" or "e" in f"{value:.9g}" else f"{value:.9g}.0f"


def reference(frames, provenance):
    """Text of presence_reference.h; frames is a list of (number of frames, outputs)."""
    head = "\n".join(f"// {line}".rstrip() for line in provenance)
    rows = "\n".join(f"    {{{count}, {{{', '.join(literal(v) for v in outputs)}}}}}," for count, outputs in frames)
    return (f"{head}\n// clang-format off\n#pragma once\n\n#include \"suppressor/presence_weights.h\"\n\n"
            "namespace nax::res {\n\nstruct NetworkReference {\n    int32_t frames;\n"
            "    float outputs[JUDGED_BANDS];\n};\n"
            f"inline constexpr NetworkReference NETWORK_REFERENCES[] = {{\n{rows}\n}};\n\n"
            "} // namespace nax::res\n")
