#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Fails when a relative link of a page leads nowhere, to a heading that is not there included, and
when a page of the site shows Markdown that Doxygen did not understand, a link out of the site for one:
checklinks.py DIR…
The pages of a directory are its *.md and *.html and those of its folders docs/ and examples/."""
import html, pathlib, re, sys, urllib.parse

def plain(text):
    return re.sub(r"^(```|~~~).*?^\1|`[^`\n]*`|<!--.*?-->", "", text, flags=re.S | re.M)

def leftovers(page):
    text = re.sub(r'<(pre|code|script)\b.*?</\1>|<div class="line">.*?</div>', "", page.read_text(), flags=re.S)
    return re.findall(r"\[[^\]\n]*\]\([\w./#-]+\)|\*\*[^*\n]*", text) if page.suffix == ".html" else []

def links(page):
    text = page.read_text()
    if page.suffix == ".html":
        return re.findall(r'<(?:a|img|link|script|iframe)\b[^>]*?\b(?:href|src)="([^"]*)"', text)
    return re.findall(r"\]\(([^)\s]+)\)", plain(text))

def anchors(page):
    text = page.read_text()
    if page.suffix == ".html":
        return set(re.findall(r'\b(?:id|name)="([^"]*)"', text))
    titles = re.findall(r"^#+ +(.*)", plain(text.replace("`", "")), re.M)
    return {re.sub(r"[^\w\- ]", "", title.lower()).replace(" ", "-") for title in titles}

pages = [page for top in map(pathlib.Path, sys.argv[1:]) for folder in (top, top / "docs", top / "examples")
         for page in sorted(folder.glob("*")) if page.suffix in (".md", ".html")]
count, faults = 0, []
for page in pages:
    faults += [f"{page}: shows {text}" for text in leftovers(page)]
    for link in links(page):
        url = urllib.parse.urlsplit(html.unescape(link))
        if url.scheme or url.netloc:
            continue
        count += 1
        target = page.parent / urllib.parse.unquote(url.path) if url.path else page
        if not target.exists():
            faults.append(f"{page}: {link} leads nowhere")
        elif url.fragment and target.suffix in (".md", ".html") and url.fragment not in anchors(target):
            faults.append(f"{page}: {link} names no heading")
print("\n".join(faults) or f"links: clean ({count} in {len(pages)} pages)")
sys.exit(bool(faults) or count == 0)
