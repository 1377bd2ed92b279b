#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Takes a picture of the page at an address once it shows messages and, if there is a stream, its video.

    demo_picture.py ADDRESS FILE.png
"""
import pathlib
import sys
import time

from page_run import Browser, has_messages, save_picture, wait_for


def shows_video(browser):
    return browser.run("const video = document.querySelector('#video');"
                       "return document.querySelector('#video-area').hidden || video.currentTime > 0;") is True


def main():
    address, file = sys.argv[1:]
    browser = Browser()
    try:
        browser.prefer(color_scheme="light")
        browser.open(address)
        wait_for(lambda: has_messages(browser), "the first message on the page")
        time.sleep(6)  # the paths become visible, and the page asks for streams now and then
        wait_for(lambda: shows_video(browser), "the video on the page")
        save_picture(browser, pathlib.Path(file))
    finally:
        browser.close()


if __name__ == "__main__":
    main()
