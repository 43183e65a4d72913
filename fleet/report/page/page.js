"use strict";
// Everything is summed anew from the cells at each choice.  Names come from the network: they reach the page as text
// only, never as markup.
(() => {
    const data = JSON.parse(document.getElementById("data").textContent);
    const MOST_SERIES = 8, BARS = 10, PAGE = 10, HEIGHT = 260;
    const MEASURES = {
        bytes: {title: "bytes, enforced flows", show: bytes},
        packets: {title: "packets, enforced flows", show: count},
        enforced: {title: "enforced flows", show: count},
        monitored: {title: "monitored flows", show: count},
    };
    const SUMS = Object.keys(MEASURES);
    const byId = id => document.getElementById(id);
    const buckets = Math.ceil((data.to - data.from) / data.bucket);
    const plots = [];
    const pages = new Map();  // of tables, by title

    // Texts.

    function bytes(value) {
        const units = ["B", "kB", "MB", "GB", "TB", "PB"];
        let unit = 0;
        for (; Math.abs(value) >= 1000 && unit < units.length - 1; unit++) value /= 1000;
        return `${unit ? value.toFixed(value < 10 ? 2 : 1) : value} ${units[unit]}`;
    }
    function count(value) {
        return value.toLocaleString("en-US");
    }
    function time(seconds) {
        return new Date(seconds * 1000).toISOString().replace("T", " ").slice(0, 16);
    }
    const startOf = bucket => data.from + bucket * data.bucket;

    function element(name, properties = {}, ...children) {
        const made = Object.assign(document.createElement(name), properties);
        made.append(...children);
        return made;
    }

    // Sums.

    // What is chosen; an index of -1 is everything.
    function choice() {
        const index = (id, names) => {
            const text = byId(id).value;
            return text === "" ? -1 : names.indexOf(text) < 0 ? -2 : names.indexOf(text);
        };
        return {box: index("box", data.boxes), application: index("application", data.applications),
                from: +byId("from").value, to: +byId("to").value, measure: byId("measure").value};
    }
    function none() {
        return {packets: 0, bytes: 0, enforced: 0, monitored: 0, counted: 0};
    }
    // Sums of the cells that are chosen, by key(cell's number); cells of the period before by themselves.
    function sum(cells, chosen, key) {
        const now = new Map(), before = new Map();
        for (let i = 0; i < cells.count; i++) {
            if (chosen.box !== -1 && cells.box[i] !== chosen.box) continue;
            if (chosen.application !== -1 && cells.application[i] !== chosen.application) continue;
            const at = cells.time[i];
            if (at >= 0 && (at < chosen.from || at >= chosen.to)) continue;
            const sums = at < 0 ? before : now, name = key(i);
            let found = sums.get(name);
            if (!found) sums.set(name, found = none());
            for (const one of SUMS) found[one] += cells[one][i];
            if (cells.counted) found.counted += cells.counted[i];
        }
        return {now, before};
    }
    function ranked(sums, measure) {
        const more = (a, b) => b[1][measure] - a[1][measure] || b[1].enforced + b[1].monitored - a[1].enforced - a[1].monitored;
        return [...sums].sort((a, b) => more(a, b) || (a[0] < b[0] ? -1 : 1));
    }

    // Tables: pages of rows, and all of them for download.

    // A spreadsheet takes a cell that begins so for a formula.
    function csvCell(value) {
        let text = String(value);
        if (typeof value !== "number" && /^[=+@\t\r]|^-./.test(text)) text = "'" + text;
        return /[",\r\n']/.test(text) ? `"${text.replaceAll('"', '""')}"` : text;
    }
    function download(title, columns, rows) {
        const lines = [columns.map(column => column.title), ...rows.map(row => row.map(cell => cell ?? ""))];
        const text = lines.map(line => line.map(csvCell).join(",")).join("\r\n") + "\r\n";
        const link = element("a", {href: URL.createObjectURL(new Blob([text], {type: "text/csv"})),
                                   download: title.toLowerCase().replace(/[^a-z]+/g, "-") + ".csv"});
        link.click();
        setTimeout(() => URL.revokeObjectURL(link.href), 10000);
    }
    function table(title, columns, rows) {
        const last = Math.max(0, Math.ceil(rows.length / PAGE) - 1);
        const body = element("tbody"), note = element("span");
        const back = element("button", {type: "button", textContent: "‹", title: "earlier rows"});
        const on = element("button", {type: "button", textContent: "›", title: "later rows"});
        const csv = element("button", {type: "button", textContent: "CSV", className: "csv", title: "all rows as a file",
                                       onclick: () => download(title, columns, rows)});
        const turn = page => {
            page = Math.min(Math.max(page, 0), last);
            pages.set(title, page);
            body.replaceChildren(...rows.slice(page * PAGE, (page + 1) * PAGE).map(row => element("tr", {}, ...row.map((value, i) => {
                const text = columns[i].show ? columns[i].show(value) : value;
                const cell = element("td", {className: columns[i].text ? "text" : "", title: String(value)});
                if (columns[i].pick && !String(value).startsWith("(all"))
                    cell.append(element("a", {textContent: text, tabIndex: 0, role: "button", onclick: () => pick(columns[i].pick, value),
                                              onkeydown: event => event.key === "Enter" && pick(columns[i].pick, value)}));
                else
                    cell.textContent = text;
                return cell;
            }))));
            note.textContent = rows.length ? `${page * PAGE + 1}–${Math.min((page + 1) * PAGE, rows.length)} of ${rows.length}` : "none";
            back.disabled = page === 0;
            on.disabled = page === last;
        };
        back.onclick = () => turn(pages.get(title) - 1);
        on.onclick = () => turn(pages.get(title) + 1);
        turn(pages.get(title) ?? 0);
        const head = element("thead", {}, element("tr", {}, ...columns.map(column =>
            element("th", {textContent: column.title, scope: "col", className: column.text ? "text" : ""}))));
        return [element("div", {className: "scroll"}, element("table", {className: "rows"}, head, body)),
                element("div", {className: "pages"}, back, on, note, element("span", {className: "gap"}), csv)];
    }
    function pick(id, value) {
        byId(id).value = value;
        draw();
    }

    // Pictures.

    const color = name => getComputedStyle(document.documentElement).getPropertyValue(name).trim();
    function axis(more) {
        return {stroke: color("--soft"), grid: {stroke: color("--line"), width: 1}, ticks: {stroke: color("--line"), width: 1}, ...more};
    }
    function plot(place, options, values) {
        const make = () => new uPlot({width: Math.max(place.clientWidth, 200), height: HEIGHT, ...options}, values, place);
        plots.push({place, plot: make()});
    }
    // Series over time, drawn on top of each other when stacked; dragging chooses a time.
    function timePicture(place, series, show, stacked) {
        const xs = Array.from({length: buckets + 1}, (_, i) => startOf(i));  // the last step has an end
        const base = new Array(buckets).fill(0);
        const drawn = series.map(one => one.values.map((value, i) => stacked ? base[i] += value : value));
        drawn.forEach(values => values.push(values[buckets - 1]));
        const clock = (_, ticks, __, ___, step) => ticks.map(at => step >= 86400 ? time(at).slice(5, 10) :
            time(at).endsWith("00:00") ? [time(at).slice(11), time(at).slice(0, 10)].join("\n") : time(at).slice(11));
        const order = stacked ? [...series.keys()].reverse() : [...series.keys()];  // the tallest first, behind the others
        plot(place, {
            tzDate: seconds => uPlot.tzDate(new Date(seconds * 1000), "UTC"),
            cursor: {drag: {x: true, y: false, setScale: false}},
            scales: {x: {range: [data.from, data.to]}, y: {range: (_, low, high) => [0, high > 0 ? high * 1.05 : 1]}},
            axes: [axis({values: clock}), axis({size: 78, values: (_, ticks) => ticks.map(show)})],
            series: [{value: (_, at) => at == null ? "" : time(at) + " UTC"}, ...order.map(i => ({
                label: series[i].name, stroke: color(series[i].color), width: 1.5, points: {show: buckets < 3},
                fill: stacked ? color(series[i].color) + "cc" : undefined, paths: uPlot.paths.stepped({align: 1}),
                value: (_, value, __, at) => at == null ? "" : show(series[i].values[Math.min(at, buckets - 1)]),
            }))],
            hooks: {setSelect: [made => {
                if (made.select.width < 4) return;
                const at = x => Math.floor((made.posToVal(x, "x") - data.from) / data.bucket);
                byId("from").value = Math.max(0, at(made.select.left));
                byId("to").value = Math.min(buckets, at(made.select.left + made.select.width) + 1);
                draw();
            }]},
        }, [xs, ...order.map(i => drawn[i])]);
    }
    function barPicture(place, names, values, show) {
        const shown = name => name.length > 18 ? name.slice(0, 17) + "…" : name;
        plot(place, {
            legend: {show: false},
            cursor: {drag: {x: false, y: false}},
            scales: {x: {time: false, range: [-0.6, Math.max(names.length, 4) - 0.4]}, y: {range: (_, __, high) => [0, high > 0 ? high * 1.05 : 1]}},
            axes: [axis({rotate: -35, size: 80, gap: 4, grid: {show: false}, splits: () => [...names.keys()],
                         values: (_, ticks) => ticks.map(i => shown(names[i] ?? ""))}),
                   axis({size: 78, values: (_, ticks) => ticks.map(show)})],
            series: [{}, {fill: color("--c0"), stroke: color("--c0"), paths: uPlot.paths.bars({size: [0.7, 60]}), points: {show: false}}],
        }, [[...names.keys()], values]);
    }

    // Sections.

    function section(title, hint, wide) {
        const picture = element("div", {className: "picture"});
        const made = element("section", {className: wide ? "wide" : ""}, element("h2", {textContent: title}),
                             element("p", {className: "hint", textContent: hint}), picture);
        made.dataset.title = title;
        byId("sections").append(made);
        return {made, picture, title};
    }
    function overTime(chosen) {
        const {show, title} = MEASURES[chosen.measure], cells = data.cells;
        const place = section("Traffic by application over time", `${title}, each ${duration(data.bucket)}; drag to choose a time`, true);
        const top = ranked(sum(cells, chosen, i => cells.application[i]).now, chosen.measure).filter(([, sums]) => sums[chosen.measure] > 0);
        const named = new Map(top.slice(0, MOST_SERIES).map(([number], i) => [number, i]));
        const series = top.slice(0, MOST_SERIES).map(([number], i) => ({name: data.applications[number], color: `--c${i}`, values: new Array(buckets).fill(0)}));
        if (top.length > MOST_SERIES) series.push({name: "(all others)", color: "--c8", values: new Array(buckets).fill(0)});
        for (const [key, sums] of sum(cells, chosen, i => cells.time[i] * data.applications.length + cells.application[i]).now) {
            const at = Math.floor(key / data.applications.length), number = key % data.applications.length;
            if (sums[chosen.measure]) series[named.get(number) ?? MOST_SERIES].values[at] += sums[chosen.measure];
        }
        timePicture(place.picture, series, show, true);
        const rows = Array.from({length: buckets}, (_, i) => [time(startOf(i)), ...series.map(one => one.values[i])])
            .filter((_, i) => i >= chosen.from && i < chosen.to);
        place.made.append(...table(place.title, [{title: "Time (UTC)", text: true}, ...series.map(one => ({title: one.name, show}))], rows));
    }
    function enforcedAndMonitored(chosen) {
        const cells = data.cells;
        const place = section("Enforced against monitored", `flows that began, each ${duration(data.bucket)}`, true);
        const series = [["enforced", "--c0"], ["monitored", "--c1"]].map(([name, color]) => ({name, color, values: new Array(buckets).fill(0)}));
        for (const [at, sums] of sum(cells, chosen, i => cells.time[i]).now) {
            series[0].values[at] = sums.enforced;
            series[1].values[at] = sums.monitored;
        }
        timePicture(place.picture, series, count, false);
        const {now} = sum(cells, chosen, i => cells.application[i]);
        const rows = ranked(now, "enforced").map(([number, sums]) => [data.applications[number], sums.enforced, sums.monitored, sums.counted, sums.bytes]);
        place.made.append(...table(place.title, [{title: "Application", text: true, pick: "application"}, {title: "Enforced flows", show: count},
            {title: "Monitored flows", show: count}, {title: "Counted hourly", show: count}, {title: "Bytes", show: bytes}], rows));
    }
    function ranking(title, hint, cells, column, names, chosen, pickId) {
        const {show} = MEASURES[chosen.measure], place = section(title, hint, false);
        const rows = ranked(sum(cells, chosen, i => cells[column][i]).now, chosen.measure);
        const bars = rows.filter(([, sums]) => sums[chosen.measure] > 0).slice(0, BARS);
        barPicture(place.picture, bars.map(([number]) => names[number]), bars.map(([, sums]) => sums[chosen.measure]), show);
        place.made.append(...table(title, [{title: "Name", text: true, pick: pickId}, {title: "Bytes", show: bytes}, {title: "Packets", show: count},
            {title: "Enforced flows", show: count}, {title: "Monitored flows", show: count}],
            rows.map(([number, sums]) => [names[number], sums.bytes, sums.packets, sums.enforced, sums.monitored])));
    }
    // Compared with the whole period before, whatever part of this one is chosen.
    function whatIsNew(chosen) {
        const whole = {...chosen, from: 0, to: buckets}, rows = [];
        const place = section("New since the period before", `what was not seen from ${time(data.before)} to ${time(data.from)} UTC, and what has grown or shrunk most`, true);
        let known = false;
        for (const [kind, column, names, cells] of [["application", "application", data.applications, data.cells], ["box", "box", data.boxes, data.cells],
                                                    ["group", "group", data.groups, data.cells], ["talker", "talker", data.talkers, data.talkerCells]]) {
            const {now, before} = sum(cells, whole, i => cells[column][i]);
            known ||= before.size > 0;
            const flows = sums => sums ? sums.enforced + sums.monitored : 0;
            for (const [number, sums] of now) {
                const old = before.get(number);
                rows.push([names[number], kind, old ? "" : "new", sums.bytes, old ? old.bytes : 0, sums.bytes - (old ? old.bytes : 0), flows(sums), flows(old)]);
            }
            for (const [number, old] of before)
                if (!now.has(number)) rows.push([names[number], kind, "gone", 0, old.bytes, -old.bytes, 0, flows(old)]);
        }
        rows.sort((a, b) => (b[2] === "new") - (a[2] === "new") || Math.abs(b[5]) - Math.abs(a[5]) || Math.abs(b[6] - b[7]) - Math.abs(a[6] - a[7]));
        if (!known) place.made.querySelector(".hint").textContent = `no records from ${time(data.before)} to ${time(data.from)} UTC to compare with`;
        const bars = rows.filter(row => row[1] === "application" && row[5] > 0).sort((a, b) => b[5] - a[5]).slice(0, BARS);
        if (known) barPicture(place.picture, bars.map(row => row[0]), bars.map(row => row[5]), bytes);
        place.made.append(...table(place.title, [{title: "Name", text: true}, {title: "What", text: true}, {title: "", text: true}, {title: "Bytes", show: bytes},
            {title: "Bytes before", show: bytes}, {title: "Change", show: bytes}, {title: "Flows", show: count}, {title: "Flows before", show: count}], known ? rows : []));
    }
    function duration(seconds) {
        for (const [length, name] of [[86400, "day"], [3600, "hour"], [60, "minute"]])
            if (seconds % length === 0) return seconds === length ? name : `${seconds / length} ${name}s`;
        return `${seconds} seconds`;
    }
    function totals(chosen) {
        const sums = sum(data.cells, chosen, () => 0).now.get(0) ?? none();
        const seen = column => sum(data.cells, chosen, i => data.cells[column][i]).now.size;
        const shown = [["bytes", bytes(sums.bytes)], ["packets", count(sums.packets)], ["enforced flows", count(sums.enforced)],
                       ["monitored flows", count(sums.monitored)], ["boxes", count(seen("box"))], ["applications", count(seen("application"))]];
        byId("totals").replaceChildren(...shown.map(([name, text]) => element("div", {className: "total"}, element("b", {textContent: text}), element("span", {textContent: name}))));
        byId("nothing").hidden = sums.packets + sums.enforced + sums.monitored + sums.counted > 0;
    }

    function draw() {
        const chosen = choice(), top = window.scrollY;
        for (const one of plots.splice(0)) one.plot.destroy();
        byId("sections").replaceChildren();
        totals(chosen);
        overTime(chosen);
        enforcedAndMonitored(chosen);
        ranking("Applications", "by what is shown above", data.cells, "application", data.applications, chosen, "application");
        ranking("Groups", "as the boxes name them; - is none", data.cells, "group", data.groups, chosen);
        ranking("Boxes", "as their folders are called", data.cells, "box", data.boxes, chosen, "box");
        ranking("Top talkers", `the ${data.talkers.length} largest of the period; a flow counts for both of its ends`, data.talkerCells, "talker", data.talkers, chosen);
        whatIsNew(chosen);
        window.scrollTo(0, top);
    }

    function choices(id, texts, chosen) {
        byId(id).replaceChildren(...texts.map(([value, text]) => element("option", {value, textContent: text})));
        if (chosen !== undefined) byId(id).value = chosen;
    }
    function reset() {
        byId("box").value = byId("application").value = "";
        byId("from").value = 0;
        byId("to").value = buckets;
        pages.clear();
        draw();
    }

    byId("period").textContent = `${time(data.from)} to ${time(data.to)} UTC · ${data.source} · ${count(data.enforcementLines)} enforcement, ` +
        `${count(data.monitoringLines)} monitoring and ${count(data.applicationLines)} application lines, the period before included`;
    byId("notes").textContent = `Made ${time(data.made)} UTC.` + (data.badLines ? ` ${count(data.badLines)} lines could not be read.` : "");
    choices("boxes", data.boxes.map(name => [name, name]));
    choices("applications", data.applications.map(name => [name, name]));
    choices("from", Array.from({length: buckets}, (_, i) => [i, time(startOf(i))]), 0);
    choices("to", Array.from({length: buckets}, (_, i) => [i + 1, time(startOf(i + 1))]), buckets);
    const all = sum(data.cells, {box: -1, application: -1, from: 0, to: buckets}, () => 0).now.get(0) ?? none();
    choices("measure", SUMS.map(name => [name, MEASURES[name].title]), all.bytes || !all.monitored ? "bytes" : "monitored");
    byId("filters").onsubmit = event => event.preventDefault();
    for (const id of ["box", "application", "from", "to", "measure"]) byId(id).onchange = draw;
    byId("reset").onclick = reset;
    matchMedia("(prefers-color-scheme: dark)").addEventListener("change", draw);
    let resized = 0;
    window.addEventListener("resize", () => {
        clearTimeout(resized);
        resized = setTimeout(() => plots.forEach(({place, plot}) => plot.setSize({width: place.clientWidth, height: HEIGHT})), 100);
    });
    draw();
})();
