"""The demo network in PyTorch, for training: whole sequences at a time, every sequence from an empty state.

Sizes of heads are fixed by the architecture. All linear blocks share one set of matrices and all full
blocks another; norm weights belong to each block. Blocks outside `ACTIVE` are identity blocks: their norm
weights are zero, so they add nothing, and are left out here.
"""

import torch
from torch import nn
from torch.nn import functional as F

BLOCKS = 32
HIDDEN = 256
FFN = 512
EPS = 1e-6

HEADS, KV_HEADS, HEAD, ROTARY, ROPE_BASE = 16, 4, 256, 64, 1e7
LINEAR_HEAD, KEY_HEADS, VALUE_HEADS, KERNEL = 128, 16, 32, 4
KEY_WIDTH = KEY_HEADS * LINEAR_HEAD
VALUE_WIDTH = VALUE_HEADS * LINEAR_HEAD
CHANNELS = 2 * KEY_WIDTH + VALUE_WIDTH

ACTIVE = (0, 1, 3, 7, 8, 12, 15, 18, 19, 24, 27, 31)


def is_full(block):
    """Every fourth block uses full attention."""
    return (block + 1) % 4 == 0


def rms_norm(x, weight):
    """RMS norm over the last dimension."""
    return x * torch.rsqrt(x.square().mean(-1, keepdim=True) + EPS) * weight


def matrix(rows, cols, scale=1.0):
    """A weight matrix [rows, cols] with fan-in scaling."""
    return nn.Parameter(torch.randn(rows, cols) * scale * cols ** -0.5)


class FeedForward(nn.Module):
    """down(silu(gate(x)) * up(x))"""

    def __init__(self):
        super().__init__()
        self.gate = matrix(FFN, HIDDEN)
        self.up = matrix(FFN, HIDDEN)
        self.down = matrix(HIDDEN, FFN, 0.2)

    def forward(self, x):
        return F.linear(F.silu(F.linear(x, self.gate)) * F.linear(x, self.up), self.down)


class LinearMixer(nn.Module):
    """Gated DeltaNet over a whole sequence, as one chunk."""

    def __init__(self):
        super().__init__()
        self.qkv = matrix(CHANNELS, HIDDEN)
        self.z = matrix(VALUE_WIDTH, HIDDEN)
        self.beta = matrix(VALUE_HEADS, HIDDEN)
        self.alpha = matrix(VALUE_HEADS, HIDDEN)
        self.dt_bias = nn.Parameter(torch.zeros(VALUE_HEADS))
        self.log_decay = nn.Parameter(torch.linspace(-4.0, 0.5, VALUE_HEADS))
        conv = torch.randn(CHANNELS, KERNEL) * 0.2
        conv[:, -1] += 1.0
        self.conv = nn.Parameter(conv)
        self.norm = nn.Parameter(torch.ones(LINEAR_HEAD))
        self.out = matrix(HIDDEN, VALUE_WIDTH, 0.2)

    def decay(self):
        """The stored "ssm_a": negative, one per value head."""
        return -torch.exp(self.log_decay)

    def forward(self, x):
        batch, length, _ = x.shape
        channels = F.linear(x, self.qkv).float().transpose(1, 2)
        channels = F.conv1d(F.pad(channels, (KERNEL - 1, 0)), self.conv.unsqueeze(1), groups=CHANNELS)
        channels = F.silu(channels)
        heads = channels.view(batch, -1, LINEAR_HEAD, length)
        q, k, v = heads.split([KEY_HEADS, KEY_HEADS, VALUE_HEADS], dim=1)
        q = q * torch.rsqrt(q.square().sum(2, keepdim=True) + EPS)
        k = k * torch.rsqrt(k.square().sum(2, keepdim=True) + EPS)

        beta = torch.sigmoid(F.linear(x, self.beta).float()).transpose(1, 2).unsqueeze(-1)
        g = F.softplus(F.linear(x, self.alpha).float() + self.dt_bias) * self.decay()
        total = g.cumsum(1).transpose(1, 2)
        causal = torch.ones(length, length, dtype=torch.bool).tril()
        ratio = (total.unsqueeze(3) - total.unsqueeze(2)).masked_fill(~causal, -1e30).exp()

        tiles = VALUE_HEADS // KEY_HEADS
        kk = (k.transpose(2, 3) @ k).repeat(1, tiles, 1, 1)
        qk = (q.transpose(2, 3) @ k).repeat(1, tiles, 1, 1)
        system = (beta * kk * ratio).tril(-1)
        delta = torch.linalg.solve_triangular(system, beta * v.transpose(2, 3), upper=False,
                                              unitriangular=True)
        o = (qk * ratio) @ delta * LINEAR_HEAD ** -0.5
        o = rms_norm(o, self.norm).transpose(1, 2).reshape(batch, length, VALUE_WIDTH)
        return F.linear(o * F.silu(F.linear(x, self.z)), self.out)


class FullMixer(nn.Module):
    """Causal softmax attention with grouped heads, partial rotary embedding and an output gate."""

    def __init__(self):
        super().__init__()
        self.q = matrix(HEADS * HEAD * 2, HIDDEN)
        self.k = matrix(KV_HEADS * HEAD, HIDDEN)
        self.v = matrix(KV_HEADS * HEAD, HIDDEN)
        self.q_norm = nn.Parameter(torch.ones(HEAD))
        self.k_norm = nn.Parameter(torch.ones(HEAD))
        self.out = matrix(HIDDEN, HEADS * HEAD, 0.2)

    def forward(self, x):
        batch, length, _ = x.shape
        q, gate = F.linear(x, self.q).float().view(batch, length, HEADS, 2, HEAD).unbind(3)
        k = F.linear(x, self.k).float().view(batch, length, KV_HEADS, HEAD)
        v = F.linear(x, self.v).float().view(batch, length, KV_HEADS, HEAD)
        q, k = rope(rms_norm(q, self.q_norm)), rope(rms_norm(k, self.k_norm))
        group = HEADS // KV_HEADS
        q = q.view(batch, length, KV_HEADS, group, HEAD).permute(0, 2, 3, 1, 4)
        q = q.reshape(batch, KV_HEADS, group * length, HEAD)
        k, v = k.transpose(1, 2), v.transpose(1, 2)
        scores = (q @ k.transpose(2, 3) * HEAD ** -0.5).view(batch, KV_HEADS, group, length, length)
        causal = torch.ones(length, length, dtype=torch.bool).tril()
        weights = scores.masked_fill(~causal, -1e30).softmax(-1)
        o = weights.view(batch, KV_HEADS, group * length, length) @ v
        o = o.view(batch, KV_HEADS, group, length, HEAD).permute(0, 3, 1, 2, 4)
        o = o.reshape(batch, length, HEADS, HEAD) * torch.sigmoid(gate)
        return F.linear(o.reshape(batch, length, HEADS * HEAD), self.out)


def rope(x):
    """Rotates the first 64 elements of each head, pairs (j, j + 32), by the position."""
    half = ROTARY // 2
    steps = ROPE_BASE ** (-torch.arange(half, dtype=torch.float64) * 2 / ROTARY)
    angle = torch.arange(x.shape[1], dtype=torch.float64)[:, None, None] * steps
    cos, sin = angle.cos().float(), angle.sin().float()
    a, b, rest = x[..., :half], x[..., half:ROTARY], x[..., ROTARY:]
    return torch.cat([a * cos - b * sin, a * sin + b * cos, rest], -1)


class DemoModel(nn.Module):
    """Embedding, the active blocks, final norm; the embedding is also the output projection."""

    def __init__(self, vocabulary, active=ACTIVE):
        super().__init__()
        self.active = active
        self.embedding = nn.Parameter(torch.randn(vocabulary, HIDDEN) * 0.06)
        self.linear, self.full = LinearMixer(), FullMixer()
        self.linear_ffn, self.full_ffn = FeedForward(), FeedForward()
        self.attn_norm = nn.ParameterDict({str(i): nn.Parameter(torch.ones(HIDDEN)) for i in active})
        self.post_norm = nn.ParameterDict({str(i): nn.Parameter(torch.ones(HIDDEN)) for i in active})
        self.output_norm = nn.Parameter(torch.ones(HIDDEN))

    def hidden(self, ids):
        """Token ids [batch, length] to normalised final hidden states [batch, length, hidden]."""
        x = F.embedding(ids, self.embedding)
        for block in self.active:
            mixer, ffn = ((self.full, self.full_ffn) if is_full(block)
                          else (self.linear, self.linear_ffn))
            x = x + mixer(rms_norm(x, self.attn_norm[str(block)]))
            x = x + ffn(rms_norm(x, self.post_norm[str(block)]))
        return rms_norm(x, self.output_norm)

    def forward(self, ids):
        return F.linear(self.hidden(ids), self.embedding)
