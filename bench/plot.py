"""Curves over a logarithmic axis, as an SVG drawing."""

import math

WIDTH, HEIGHT = 760, 440
LEFT, RIGHT, TOP, BOTTOM = 80, 120, 40, 50
COLOURS = ["#c0392b", "#2c3e50", "#7f8c8d", "#2980b9", "#27ae60", "#8e44ad"]


def ticks(most):
    """Round steps from 0 to at least this."""
    step = 10 ** math.floor(math.log10(most))
    while most / step < 4:
        step /= 2
    return [i * step for i in range(math.ceil(most / step) + 1)]


def write(path, title, label, curves):
    """Writes a drawing of {name: [(x, y), ...]}."""
    curves = {name: points for name, points in curves.items() if points}
    if not curves:
        return
    xs = sorted({x for points in curves.values() for x, _ in points})
    levels = ticks(max(y for points in curves.values() for _, y in points))
    span = math.log(xs[-1] / xs[0]) or 1

    def across(x):
        return LEFT + (WIDTH - LEFT - RIGHT) * math.log(x / xs[0]) / span

    def down(y):
        return HEIGHT - BOTTOM - (HEIGHT - TOP - BOTTOM) * y / levels[-1]

    out = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{HEIGHT}" '
           'font-family="sans-serif" font-size="12">',
           f'<rect width="{WIDTH}" height="{HEIGHT}" fill="white"/>',
           f'<text x="{LEFT}" y="24" font-size="15">{title}</text>']
    for level in levels:
        out.append(f'<line x1="{LEFT}" x2="{WIDTH - RIGHT}" y1="{down(level):.1f}" '
                   f'y2="{down(level):.1f}" stroke="#ddd"/>')
        out.append(f'<text x="{LEFT - 6}" y="{down(level) + 4:.1f}" text-anchor="end">'
                   f'{level:g}</text>')
    for x in xs:
        out.append(f'<text x="{across(x):.1f}" y="{HEIGHT - BOTTOM + 18}" '
                   f'text-anchor="middle">{x}</text>')
    out.append(f'<text x="{(LEFT + WIDTH - RIGHT) / 2}" y="{HEIGHT - 10}" '
               f'text-anchor="middle">{label}</text>')
    for number, (name, points) in enumerate(curves.items()):
        out += draw_curve(name, points, number, across, down)
    out.append("</svg>\n")
    with open(path, "w") as file:
        file.write("\n".join(out))


def draw_curve(name, points, number, across, down):
    colour = COLOURS[number % len(COLOURS)]
    line = " ".join(f"{across(x):.1f},{down(y):.1f}" for x, y in points)
    key = TOP + 10 + 20 * number
    out = [f'<polyline points="{line}" fill="none" stroke="{colour}" stroke-width="2"/>']
    out += [f'<circle cx="{across(x):.1f}" cy="{down(y):.1f}" r="3" fill="{colour}"/>'
            for x, y in points]
    out.append(f'<line x1="{WIDTH - RIGHT + 12}" x2="{WIDTH - RIGHT + 32}" y1="{key}" y2="{key}" '
               f'stroke="{colour}" stroke-width="2"/>')
    out.append(f'<text x="{WIDTH - RIGHT + 38}" y="{key + 4}">{name}</text>')
    return out
