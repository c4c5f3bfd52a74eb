#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Draws what a soak held over its time: plot.py SAMPLES.csv FILE TITLE"""
import csv, sys
import matplotlib
matplotlib.use("agg")
from matplotlib import pyplot

samples, file, title = sys.argv[1:]
head, *rows = csv.reader(open(samples))
columns = [[float(value) for value in column] for column in zip(*rows)]
if not columns:
    sys.exit("plot: no samples")
minutes = [second / 60 for second in columns[0]]
panels = [[1, 2], [3, 4], [5]]  # columns, by their numbers
figure, axes = pyplot.subplots(len(panels), sharex=True, figsize=(8, 7))
for axis, panel in zip(axes, panels):
    for column in panel:
        axis.plot(minutes, columns[column], label=head[column], linewidth=1)
    axis.set_ylim(bottom=0)
    axis.legend(frameon=False, loc="lower right", ncol=2)
    axis.spines[["top", "right"]].set_visible(False)
axes[0].set_title(title)
axes[-1].set_xlabel("minutes")
figure.tight_layout()
figure.savefig(file)
