#!/usr/bin/env python3
"""watch_clients.py PORT PAGES SECONDS: open pages and a scrape a second of pelmowatch serve at 127.0.0.1:PORT.

Each page reads the events to their end; prints how many of them came to the page that got fewest, how many
scrapes were answered, the bytes of the last one, and the longest that one took, in milliseconds.
"""
import select
import socket
import sys
import time
import urllib.request

REQUEST = b"GET /events HTTP/1.1\r\nHost: localhost\r\nAccept: text/event-stream\r\n\r\n"
MARK = b"event: snapshot\n"


def open_pages(port, count):
    pages = {}
    for _ in range(count):
        page = socket.create_connection(("127.0.0.1", port))
        page.sendall(REQUEST)
        pages[page] = [0, b""]
    return pages


def read_page(page, state):
    data = page.recv(1 << 20)
    if not data:
        sys.exit("a page was cut off")
    text = state[1] + data
    state[0] += text.count(MARK)
    state[1] = text[-(len(MARK) - 1):]


def scrape(port):
    begin = time.monotonic()
    with urllib.request.urlopen("http://127.0.0.1:%d/metrics" % port) as answer:
        return len(answer.read()), time.monotonic() - begin


def main():
    port, count, seconds = map(int, sys.argv[1:4])
    pages = open_pages(port, count)
    end = time.monotonic() + seconds
    due, scrapes, longest, size = time.monotonic(), 0, 0, 0
    while (now := time.monotonic()) < end:
        if now >= due:
            size, took = scrape(port)
            scrapes, longest, due = scrapes + 1, max(longest, took), due + 1
        for page in select.select(list(pages), [], [], max(0, min(due, end) - time.monotonic()))[0]:
            read_page(page, pages[page])
    print(min((state[0] for state in pages.values()), default=0), scrapes, size, round(longest * 1000))


if __name__ == "__main__":
    main()
