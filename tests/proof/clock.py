"""A clock that jumps."""
import datetime
import re
import time

import world
from proof.base import HOURLY, RECORDS, RECORDS_OLD, fault, port_of

DAY = 86400


def jump(run, seconds):
    run.provoke()
    run.advance(seconds)
    run.serving()


def years(path):
    return re.findall(r",(\d{4})-(\d\d)-(\d\d) \d\d:\d\d:\d\d", world.text_of(path))


@fault
def day_forward(run):
    """the clock jumps forward by a day, three times, with reports queued and flows counted

    writes what is due, once; timers go on; no report is lost
    """
    run.configured(clock=True)
    expected = {}
    for number in range(3):
        run.module.command("clear")
        run.flows(30, first=number * 1000)
        run.report()
        expected |= {port_of(flow): 1 for flow in range(number * 1000, number * 1000 + 30)}
        jump(run, DAY)
    run.flush()
    run.unwritten(expected)
    total = sum(int(line.split(",")[6]) for line in world.text_of(HOURLY).splitlines()[1:])
    run.check(total == 90, f"hourly counts add up to {total} instead of 90")


@fault
def day_backward(run):
    """both clocks jump back by a day and forward again by two, with reports queued

    waits with its timers until the clock is where it was; then writes every report once
    """
    run.configured(clock=True)
    run.flows(30)
    run.report()
    jump(run, -DAY)
    run.flows(30, first=1000)
    run.report()
    jump(run, 2 * DAY)
    run.flush()
    run.flush()
    run.unwritten({port_of(flow): lines for first, lines in ((0, 2), (1000, 1)) for flow in range(first, first + 30)})
    run.judging(5000)


@fault
def year_end(run):
    """the clock passes the end of the year, the 29th of February 2028 and the year 2038

    writes the dates of the calendar; loses nothing
    """
    run.configured(clock=True)
    expected = {}
    now = lambda: time.time() + run.offset
    moments = [datetime.datetime(datetime.datetime.utcnow().year + 1, 1, 1), datetime.datetime(2028, 2, 29),
               datetime.datetime(2028, 3, 1), datetime.datetime(2038, 1, 19, 3, 14, 8)]
    for number, moment in enumerate(moments):
        target = moment.replace(tzinfo=datetime.timezone.utc).timestamp()
        run.module.command("clear")
        jump(run, int(target - now()) - 450)
        run.flows(10, first=number * 1000)
        run.report()
        expected |= {port_of(flow): 1 for flow in range(number * 1000, number * 1000 + 10)}
        jump(run, 900)
        run.flush()
        dates = {"-".join(date) for path in (RECORDS, RECORDS_OLD) for date in years(path)}
        before = (moment - datetime.timedelta(seconds=1)).strftime("%Y-%m-%d")
        run.check(before in dates and moment.strftime("%Y-%m-%d") in dates, f"{moment}: only {sorted(dates)}")
    run.unwritten(expected)

