"""Waiting for the lines of a program."""

import threading

import pytest

from Laboratory.lines import FileLines, Lines


class AppendedLines:
    """Lines in memory."""

    def __init__(self, _):
        self.lines = Lines()

    def append(self, line):
        self.lines.append(line)

    def end(self):
        self.lines.close()


class WrittenLines:
    """Lines in a file."""

    def __init__(self, folder):
        self._path = folder / "log"
        self._path.touch()
        self._has_ended = False
        self.lines = FileLines(self._path, lambda: self._has_ended)

    def append(self, line):
        with open(self._path, "a") as file:
            file.write(line + "\n")

    def end(self):
        self._has_ended = True


@pytest.fixture(params=[AppendedLines, WrittenLines])
def source(request, tmp_path):
    return request.param(tmp_path)


def test_a_line_that_is_there_is_found_at_once(source):
    source.append("first")
    source.append("second")
    assert source.lines.wait(lambda line: line.startswith("se"), seconds=0) == "second"


def test_a_line_that_comes_later_is_awaited(source):
    thread = threading.Thread(target=source.append, args=["late"])
    thread.start()
    assert source.lines.wait(lambda line: line == "late") == "late"
    thread.join()


def test_lines_before_the_mark_do_not_count(source):
    source.append("same")
    mark = source.lines.mark()
    assert source.lines.wait(lambda line: line == "same", mark, seconds=0) is None
    source.append("same")
    assert source.lines.wait(lambda line: line == "same", mark, seconds=0) == "same"
    assert source.lines.since(mark) == ["same"]


def test_waiting_ends_with_the_program(source):
    source.append("last")
    source.end()
    assert source.lines.wait(lambda line: line == "last") == "last"
    assert source.lines.wait(lambda line: line == "another") is None


def test_an_incomplete_line_of_a_file_does_not_count(tmp_path):
    path = tmp_path / "log"
    path.write_text("complete\nincomp")
    lines = FileLines(path, lambda: True)
    assert lines.since() == ["complete"]
    assert lines.wait(lambda line: line.startswith("incomp")) is None


def test_a_condition_on_all_lines_is_awaited():
    lines = Lines()
    lines.append("1")
    thread = threading.Thread(target=lines.append, args=["2"])
    thread.start()
    assert lines.wait_until(lambda found: len(found) == 2 and sum(map(int, found))) == 3
    thread.join()
