"""The presence network in PyTorch, its training and its export as integers."""
import numpy as np
import torch

BANDS, FEATURES, HIDDEN = 20, 10, 64
INPUTS, PADDED_INPUTS, OUTPUTS = BANDS * FEATURES, 208, BANDS
INPUT_ONE, HIDDEN_ONE = 48, 127
POWERS = 6                      # the first features of a band are log powers
LOG_SCALE = 0.1                 # of log2 of a power
SEQUENCE, WARM_UP, BATCH = 320, 20, 16          # frames, frames, sequences
RATE = 3e-3


class Network(torch.nn.Module):
    def __init__(self):
        super().__init__()
        self.dense = torch.nn.Linear(INPUTS, HIDDEN)
        self.recurrent = torch.nn.GRU(HIDDEN, HIDDEN, batch_first=True)
        self.output = torch.nn.Linear(2 * HIDDEN, BANDS)

    def forward(self, inputs):
        """inputs (sequences x frames x INPUTS), 1 is 1.0 -> judgement (... x BANDS), 0 to 1."""
        dense = torch.tanh(self.dense(inputs))
        state, _ = self.recurrent(dense)
        return torch.sigmoid(self.output(torch.cat((state, dense), -1)))


def truth(near, rest):
    """Target and weight (frames x BANDS) from the powers of the near end and of the rest."""
    target = np.sqrt(near / (near + rest + 0.12))
    weight = (near + rest + 0.4) ** 0.15 * (near + rest > 0)
    return target, weight / max(weight.mean(), 1e-9)


def loss_of(judged, target, weight):
    """Squared error, half as much again where the near end is judged too low."""
    error = judged - target
    return (error * error * torch.where(error < 0, 1.5, 1.0) * weight).mean()


class Clips:
    """Frames of all clips in memory."""

    def __init__(self, records):
        self.length = len(records[0])
        self.inputs = np.stack([r["inputs"][:self.length] for r in records])
        pairs = [truth(r["near"][:self.length], r["rest"][:self.length]) for r in records]
        self.present = (self.inputs != 0).any(axis=1)           # not so above half the rate
        self.target = np.stack([t for t, _ in pairs]).astype(np.float16)
        self.weight = np.stack([w for _, w in pairs]).astype(np.float16)

    def batch(self, places, level_db):
        """Sequences at places (clip, first frame), each with its level moved."""
        cut = [np.s_[clip, first:first + SEQUENCE] for clip, first in places]
        inputs = np.stack([self.inputs[c] for c in cut]).astype(np.float32) / INPUT_ONE
        present = np.stack([self.present[clip] for clip, _ in places])[:, None]
        shift = np.zeros((len(cut), BANDS, FEATURES), np.float32)
        shift[:, :, :POWERS] = (LOG_SCALE * np.log2(10) / 10 * level_db)[:, None, None]
        inputs += shift.reshape(len(cut), 1, INPUTS) * present
        return [torch.from_numpy(np.ascontiguousarray(a, np.float32)) for a in
                (inputs, np.stack([self.target[c] for c in cut]), np.stack([self.weight[c] for c in cut]))]


def validate(network, clips):
    with torch.no_grad():
        total = 0.0
        for clip in range(len(clips.inputs)):
            inputs = torch.from_numpy(clips.inputs[clip:clip + 1].astype(np.float32) / INPUT_ONE)
            target, weight = (torch.from_numpy(a[clip:clip + 1].astype(np.float32)) for a in (clips.target, clips.weight))
            total += loss_of(network(inputs), target, weight).item()
    return total / len(clips.inputs)


def train(clips, held_out, epochs, seed, report=print):
    """A trained network."""
    torch.manual_seed(seed)
    rng = np.random.default_rng(seed)
    network = Network()
    optimiser = torch.optim.Adam(network.parameters(), RATE)
    per_clip = clips.length // SEQUENCE
    steps = epochs * (len(clips.inputs) * per_clip // BATCH)
    schedule = torch.optim.lr_scheduler.CosineAnnealingLR(optimiser, steps)
    for epoch in range(epochs):
        offset = rng.integers(clips.length - per_clip * SEQUENCE + 1)
        places = [(clip, offset + SEQUENCE * i) for clip in range(len(clips.inputs)) for i in range(per_clip)]
        rng.shuffle(places)
        losses = []
        for first in range(0, len(places) - BATCH + 1, BATCH):
            inputs, target, weight = clips.batch(places[first:first + BATCH], rng.uniform(-10, 10, BATCH))
            judged = network(inputs)
            loss = loss_of(judged[:, WARM_UP:], target[:, WARM_UP:], weight[:, WARM_UP:])
            optimiser.zero_grad()
            loss.backward()
            torch.nn.utils.clip_grad_norm_(network.parameters(), 1.0)
            optimiser.step()
            schedule.step()
            losses.append(loss.item())
        report(f"epoch {epoch + 1} of {epochs}: loss {np.mean(losses):.4f}, held out {validate(network, held_out):.4f}")
    return network


def quantised(matrix, bias, input_one, shape=None, halved=0):
    """A layer as integers, padded with zeros to shape: weights (rows x columns, int8), scale and
    bias (rows, float32). The first rows, halved of them, are halved: they are sigmoid's."""
    matrix, bias = matrix.detach().numpy().copy(), bias.detach().numpy().copy()
    matrix[:halved] /= 2
    bias[:halved] /= 2
    step = np.maximum(np.abs(matrix).max(axis=1), 1e-9) / 127
    rows, columns = shape or matrix.shape
    weights, scale, offset = np.zeros((rows, columns), np.int8), np.zeros(rows, np.float32), np.zeros(rows, np.float32)
    weights[:len(matrix), :matrix.shape[1]] = np.round(matrix / step[:, None])
    scale[:len(matrix)] = step / input_one
    offset[:len(matrix)] = bias
    return weights, scale, offset


def layers_of(network):
    """Name -> quantised layer, as presence_weights.h declares them."""
    r = network.recurrent
    return {
        "INPUT_LAYER": quantised(network.dense.weight, network.dense.bias, INPUT_ONE, (HIDDEN, PADDED_INPUTS)),
        "INPUT_GATES": quantised(r.weight_ih_l0, r.bias_ih_l0, HIDDEN_ONE, halved=2 * HIDDEN),
        "STATE_GATES": quantised(r.weight_hh_l0, r.bias_hh_l0, HIDDEN_ONE, halved=2 * HIDDEN),
        "OUTPUT_LAYER": quantised(network.output.weight, network.output.bias, HIDDEN_ONE, (OUTPUTS, 2 * HIDDEN), BANDS),
    }


def with_layers(layers):
    """A network in floating point that has the weights of integer layers."""
    network = Network()
    r = network.recurrent
    with torch.no_grad():
        for name, one, halved, matrix, bias in (
                ("INPUT_LAYER", INPUT_ONE, 0, network.dense.weight, network.dense.bias),
                ("INPUT_GATES", HIDDEN_ONE, 2 * HIDDEN, r.weight_ih_l0, r.bias_ih_l0),
                ("STATE_GATES", HIDDEN_ONE, 2 * HIDDEN, r.weight_hh_l0, r.bias_hh_l0),
                ("OUTPUT_LAYER", HIDDEN_ONE, BANDS, network.output.weight, network.output.bias)):
            weights, scale, offset = layers[name]
            rows, columns = matrix.shape
            doubled = np.where(np.arange(rows) < halved, 2, 1).astype(np.float32)
            matrix.copy_(torch.from_numpy(weights[:rows, :columns] * (scale[:rows] * one * doubled)[:, None]))
            bias.copy_(torch.from_numpy(offset[:rows] * doubled))
    return network


def reference_outputs(layers):
    """(frames, outputs) of the integer layers after 1, 10 and 60 frames of inputs that a linear
    congruential generator draws."""
    drawn, inputs = 1, np.zeros((1, 60, INPUTS), np.float32)
    for frame in range(60):
        for i in range(INPUTS):
            drawn = (1664525 * drawn + 1013904223) % 2 ** 32
            inputs[0, frame, i] = ((drawn >> 25) - 64) / INPUT_ONE
    with torch.no_grad():
        outputs = with_layers(layers)(torch.from_numpy(inputs))[0].numpy()
    return [(count, outputs[count - 1]) for count in (1, 10, 60)]
