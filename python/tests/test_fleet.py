"""Fleets: pictures over a cluster, of which workers die."""

import json
import os
import signal

import distributed
import numpy
import pytest

import kel
import kel.fleet


@pytest.fixture(scope="module")
def cluster():
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                                  memory_limit="1GiB", dashboard_address=None) as made:
        yield made


def write_ppm(path, array):
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(b"P6 %d %d 255\n" % array.shape[1::-1] + array.tobytes())


def lines_of(path):
    return [json.loads(line) for line in path.read_text().splitlines()]


def test_a_killed_worker_loses_nothing(cluster, photo, tmp_path, monkeypatch):
    for number in range(300):
        x, y = number % 20 * 7, number // 20 * 7
        write_ppm(tmp_path / f"in/{number % 3}/{number}.ppm", photo[y:y + 150, x:x + 200])
    with distributed.Client(cluster, set_as_default=False) as client:
        workers = list(client.run(os.getpid).values())
    run = lambda: kel.fleet.run("encode", [tmp_path / "in"], tmp_path / "out",
                                options={"lossless": True}, scheduler=cluster.scheduler_address)
    add, number_at_death = kel.fleet.Manifest.add, []

    def kill(manifest, entry):
        add(manifest, entry)
        if len(manifest.entries) == 40:
            number_at_death.append(len(manifest.entries))
            os.kill(workers[0], signal.SIGKILL)

    monkeypatch.setattr(kel.fleet.Manifest, "add", kill)
    assert run() == (300, 0, [])
    with distributed.Client(cluster, set_as_default=False) as client:
        assert number_at_death and workers[0] not in client.run(os.getpid).values()

    entries = {entry["output"]: entry for entry in lines_of(tmp_path / "out/encode.jsonl")}
    outputs = [path for path in (tmp_path / "out").rglob("*") if path.is_file()]
    assert len(entries) == 300 and len(outputs) == 301  # nothing unfinished is left
    for output, entry in entries.items():
        assert entry.get("error") is None and entry["bytes"] == os.path.getsize(output)
        number = int(os.path.basename(output)[:-4])
        assert entry["input"] == str(tmp_path / f"in/{number % 3}/{number}.ppm")
        x, y = number % 20 * 7, number // 20 * 7
        numpy.testing.assert_array_equal(kel.decode(output), photo[y:y + 150, x:x + 200])

    before = (tmp_path / "out/encode.jsonl").read_bytes(), {p: p.stat().st_mtime_ns for p in outputs}
    monkeypatch.setattr(kel.fleet, "_client", None)  # nobody is asked
    assert run() == (0, 300, [])
    assert before == ((tmp_path / "out/encode.jsonl").read_bytes(),
                      {p: p.stat().st_mtime_ns for p in outputs})


def test_runs_go_on_and_failures_are_told(cluster, photo, tmp_path, capsys):
    for number in range(5):
        write_ppm(tmp_path / f"in/{number}.ppm", photo[:150 + number, :200])
    numpy.save(tmp_path / "in/5.npy", photo[:155, :200])
    (tmp_path / "in/4.ppm").write_bytes(b"P6 9 9 255\nxx")
    common = ["--scheduler", cluster.scheduler_address, "--no-progress"]
    paths = [str(tmp_path / name) for name in ("in", "out", "back")]
    encode = ["encode", paths[0], paths[1], "--psnr", "38", "--measure", *common]
    assert kel.fleet.main(encode) == 2
    told = capsys.readouterr()
    assert told.out == "5 done, 0 as they were, 1 failed\n" and "in/4.ppm: " in told.err
    manifest = tmp_path / "out/encode.jsonl"
    assert all(abs(e["psnr"] - 38) < 0.2 for e in lines_of(manifest) if e.get("error") is None)

    # The run was cut off in a line; one input has changed, one output is gone.
    manifest.write_bytes(manifest.read_bytes()[:-9])
    last = lines_of_whole(manifest)
    write_ppm(tmp_path / "in/4.ppm", photo[:40, :40])
    gone = next(entry["output"] for entry in last if "error" not in entry)
    os.unlink(gone)
    assert kel.fleet.main(encode) == 0
    redone = {"4.kel", os.path.basename(gone)} | {
        f"{number}.kel" for number in range(6)} - {os.path.basename(e["output"]) for e in last}
    assert capsys.readouterr().out == f"{len(redone)} done, {6 - len(redone)} as they were, 0 failed\n"

    assert kel.fleet.main(["decode", paths[1], paths[2], "--format", "ppm", "--reduce", "1",
                           *common]) == 0
    assert (tmp_path / "back/4.ppm").read_bytes().startswith(b"P6\n20 20\n255\n")
    assert kel.fleet.main(["check", paths[0], paths[1], *common]) == 0
    assert {e["identical"] for e in lines_of(tmp_path / "out/check.jsonl")} == {False}
    write_ppm(tmp_path / "in/7.ppm", photo[:40, :40])
    changed = tmp_path / "out/2.kel"
    changed.write_bytes(bytes(changed.stat().st_size))
    assert kel.fleet.main(["check", paths[0], paths[1], *common]) == 2
    told = capsys.readouterr().err
    assert "7.kel" in told and "2.kel" in told


def lines_of_whole(path):
    return [json.loads(line) for line in path.read_text().splitlines() if line.endswith("}")]


def test_what_contradicts_itself_is_refused(photo, tmp_path, capsys):
    write_ppm(tmp_path / "in/a.ppm", photo[:9, :9])
    (tmp_path / "in/a.png").touch()
    names = [str(tmp_path / "in"), str(tmp_path / "out")]
    for arguments, says in ((["encode", *names], "both become"),
                            (["encode", "none.png", names[1]], "no such file"),
                            (["encode", *names, "--quality", "3", "--lossless"], "exclude")):
        assert kel.fleet.main(arguments) == 1
        assert says in capsys.readouterr().err
    os.unlink(tmp_path / "in/a.png")
    (tmp_path / "out").mkdir(exist_ok=True)
    (tmp_path / "out/a.kel").write_text("mine")
    assert kel.fleet.main(["encode", *names]) == 1
    assert (tmp_path / "out/a.kel").read_text() == "mine"


def test_memory_of_workers_limits_the_kit(cluster, photo, tmp_path):
    write_ppm(tmp_path / "in/a.ppm", numpy.tile(photo, (4, 4, 1)))
    summary = kel.fleet.run("encode", [tmp_path / "in"], tmp_path / "out", memory="1M",
                            scheduler=cluster.scheduler_address)
    assert "limit" in summary.failed[0]["error"]
