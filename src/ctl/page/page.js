// The page of a report: tables, a map and findings, made of the data block beside this script. Texts
// become text nodes and nothing else; what is not shown is not built.
"use strict";
(() => {
    const PAGE_SIZE = 50;
    const main = document.getElementById("content");
    const order = new Intl.Collator("en", {numeric: true, sensitivity: "base"});
    const state = {filter: "", shown: "all", sort: "database", down: false, page: 0, printing: false};
    let data, findingsOf;

    // ---- Elements ---------------------------------------------------------------------------

    // Attributes that are functions listen to the event of their name. Children are texts or elements.
    function element(name, attributes, ...children) {
        const made = document.createElement(name);
        for (const [key, value] of Object.entries(attributes || {})) {
            if (typeof value === "function") made.addEventListener(key, value);
            else if (value !== null) made.setAttribute(key, value);
        }
        made.append(...children.filter((child) => child !== null && child !== ""));
        return made;
    }

    function drawn(name, attributes, ...children) {
        const made = document.createElementNS("http://www.w3.org/2000/svg", name);
        for (const [key, value] of Object.entries(attributes)) made.setAttribute(key, value);
        made.append(...children);
        return made;
    }

    // A filled disk is preferred, a ring available, a square an instance; a bar across it is disabled.
    function symbol(kind, enabled) {
        const shape = kind === "instance"
            ? drawn("rect", {x: 2, y: 2, width: 12, height: 12, fill: "currentColor"})
            : drawn("circle", {cx: 8, cy: 8, r: 5.5, "stroke-width": 2, stroke: "currentColor",
                fill: kind === "preferred" ? "currentColor" : "none"});
        const bars = enabled ? [] : [
            drawn("path", {d: "M0 16 16 0", stroke: "var(--back)", "stroke-width": 5}),
            drawn("path", {d: "M1 15 15 1", stroke: "currentColor", "stroke-width": 2})];
        return drawn("svg", {viewBox: "0 0 16 16", role: "img", class: enabled ? "good" : "off",
            "aria-label": kind + ", " + (enabled ? "enabled" : "disabled")}, shape, ...bars);
    }

    function mark(kind, name, enabled) {
        return element("span", {class: "mark", title: name + ": " + kind + (enabled ? "" : ", disabled")},
            symbol(kind, enabled), name, enabled ? "" : " (off)");
    }

    function stateText(enabled) {
        return element("span", {class: enabled ? "good" : "bad"}, enabled ? "enabled" : "disabled");
    }

    // null is a field that is not stored.
    function text(value) {
        if (value === null || value === undefined) return "\u2013";
        return value === "" ? "\"\"" : String(value);
    }

    function table(caption, heads, rows) {
        return element("div", {class: "scroll", tabindex: "0", role: "region", "aria-label": caption},
            element("table", {}, element("caption", {}, caption),
                element("thead", {}, element("tr", {}, ...heads)), element("tbody", {}, ...rows)));
    }

    const head = (name) => element("th", {scope: "col"}, name);
    const rowHead = (...content) => element("th", {scope: "row"}, ...content);
    const cell = (...content) => element("td", {}, ...content);
    const count = (number, one, more) => number.toLocaleString("en") + " " + (number === 1 ? one : more);

    // ---- Data -------------------------------------------------------------------------------

    const listed = (values) => values || [];

    function take(fresh) {
        data = fresh;
        findingsOf = new Map(data.databases.map((one) => [one.key, []]));
        for (const found of data.findings) {
            // The key of a database, or one below it.
            let key = found.path;
            while (!findingsOf.has(key) && key.includes(".")) key = key.slice(0, key.lastIndexOf("."));
            if (findingsOf.has(key)) findingsOf.get(key).push(found);
        }
        for (const one of data.databases) {
            const record = one.record || {};
            one.words = [one.database, one.role, ...listed(record.services).map((each) => each.name),
                ...listed(record.instances).flatMap((each) => [each.name, each.node])]
                .join("\n").toLowerCase();
        }
    }

    const SHOWN = {
        all: ["All", () => true],
        enabled: ["Enabled", (one) => one.enabled === 1],
        disabled: ["Disabled", (one) => one.enabled === 0],
        partly: ["Partly disabled", (one) => one.services_enabled !== one.services ||
            one.instances_enabled !== one.instances],
        findings: ["With findings", (one) => findingsOf.get(one.key).length > 0],
        unreadable: ["Unreadable", (one) => one.record === null]};

    const COLUMNS = {
        database: ["Database", (one) => one.database],
        state: ["State", (one) => one.record === null ? "unreadable" : one.enabled ? "enabled" : "disabled"],
        role: ["Role", (one) => text(one.role)],
        instances: ["Instances enabled", (one) => share(one, "instances")],
        services: ["Services enabled", (one) => share(one, "services")],
        findings: ["Findings", (one) => String(findingsOf.get(one.key).length)]};

    function share(one, what) {
        return one.record === null ? "\u2013" : one[what + "_enabled"] + " of " + one[what];
    }

    function chosen() {
        const words = state.filter.toLowerCase().split(" ").filter((word) => word !== "");
        const value = COLUMNS[state.sort][1], sign = state.down ? -1 : 1;
        return data.databases
            .filter((one) => SHOWN[state.shown][1](one) && words.every((word) => one.words.includes(word)))
            .sort((a, b) => sign * order.compare(value(a), value(b)) || order.compare(a.database, b.database));
    }

    // ---- Views ------------------------------------------------------------------------------

    const address = (one) => "#database/" + encodeURIComponent(one.key);
    const link = (one) => element("a", {href: address(one)}, text(one.database));

    // The rows of a page, and the way to the others.
    function paged(rows, pager, status, one, more) {
        const pages = Math.max(1, Math.ceil(rows.length / PAGE_SIZE));
        state.page = Math.min(state.page, pages - 1);
        const first = state.page * PAGE_SIZE, last = Math.min(first + PAGE_SIZE, rows.length);
        const turn = (by) => () => { state.page += by; fill(); pager.querySelector("button:enabled").focus(); };
        pager.replaceChildren(
            element("button", {type: "button", click: turn(-1), ...(first > 0 ? {} : {disabled: ""})}, "Previous"),
            "page " + (state.page + 1) + " of " + pages,
            element("button", {type: "button", click: turn(1), ...(last < rows.length ? {} : {disabled: ""})}, "Next"));
        pager.hidden = pages === 1;
        status.textContent = count(rows.length, one, more) +
            (pages === 1 ? "" : "; " + (first + 1) + " to " + last + " are shown");
        return state.printing ? rows : rows.slice(first, last);
    }

    let fill = () => {};

    // Makes a view of what draw returns for the rows of a page; it is filled again as these change.
    function listing(title, rows, words, draw, ...before) {
        const pager = element("div", {class: "pager"}), status = element("p", {role: "status", class: "note"});
        const body = element("div", {});
        fill = () => body.replaceChildren(...draw(paged(rows(), pager, status, ...words)));
        fill();
        main.replaceChildren(element("h2", {}, title), ...before, status, body, pager);
    }

    function filters() {
        const changed = (name) => (event) => {
            state[name] = event.target.value;
            state.page = 0;
            fill();
        };
        const words = element("input", {type: "search", id: "filter", autocomplete: "off", input: changed("filter")});
        words.value = state.filter;
        const select = element("select", {id: "shown", change: changed("shown")},
            ...Object.entries(SHOWN).map(([key, [name]]) => element("option", {value: key}, name)));
        select.value = state.shown;
        return element("form", {role: "search", submit: (event) => event.preventDefault()},
            element("label", {}, "Database, role, service, instance or node", words), element("label", {}, "State", select));
    }

    function showDatabases() {
        const sortBy = (key) => () => {
            state.down = state.sort === key && !state.down;
            state.sort = key;
            fill();
            document.getElementById("sort-" + key).focus();
        };
        listing("Databases", chosen, ["database", "databases"], (rows) => [table("Databases",
            Object.entries(COLUMNS).map(([key, [name]]) => element("th", {scope: "col",
                "aria-sort": state.sort !== key ? null : state.down ? "descending" : "ascending"},
            element("button", {type: "button", id: "sort-" + key, click: sortBy(key)}, name,
                state.sort !== key ? null : element("span", {"aria-hidden": "true"}, state.down ? " \u25bc" : " \u25b2")))),
            rows.map((one) => element("tr", {}, rowHead(link(one)),
                one.record === null ? cell(element("span", {class: "bad"}, "unreadable: " + text(one.why)))
                    : cell(stateText(one.enabled)),
                ...["role", "instances", "services", "findings"].map((key) => cell(COLUMNS[key][1](one))))))],
        filters());
    }

    function legend() {
        return element("ul", {class: "legend", "aria-label": "Legend"},
            ...[["instance", "an instance"], ["preferred", "runs the service"], ["available", "takes over"]]
                .map(([kind, means]) => element("li", {}, symbol(kind, true), " " + kind + ": " + means)),
            element("li", {}, symbol("preferred", false), " with a bar, (off): disabled"));
    }

    const NO_NODE = "no node";

    // Which node each instance of a database is on, by its name in lower case.
    function nodesOf(one) {
        return new Map(listed(one.record && one.record.instances)
            .map((each) => [text(each.name).toLowerCase(), text(each.node)]));
    }

    function placesOf(service) {
        return ["preferred", "available"].flatMap((kind) => listed(service[kind])
            .map((name, at) => ({kind, name: text(name), enabled: service[kind + "_enabled"][at] === 1})));
    }

    // Nodes across; each database and its services down.
    function map(databases) {
        const lines = [], nodes = new Set();
        for (const one of databases) {
            const nodeOf = nodesOf(one);
            const add = (first, name, below, places) => {
                const at = new Map();
                for (const place of places) {
                    const node = nodeOf.get(place.name.toLowerCase()) || NO_NODE;
                    nodes.add(node);
                    at.set(node, [...(at.get(node) || []), mark(place.kind, place.name, place.enabled)]);
                }
                lines.push([first, name, below, at]);
            };
            const record = one.record || {};
            const tag = (enabled) => enabled ? null : element("span", {class: "bad"}, " disabled");
            add(true, [link(one), one.record === null ? element("span", {class: "bad"}, " unreadable") : tag(one.enabled)],
                false, listed(record.instances)
                    .map((each) => ({kind: "instance", name: text(each.name), enabled: each.enabled === 1})));
            for (const service of listed(record.services))
                add(false, [text(service.name), tag(service.enabled)], true, placesOf(service));
        }
        const across = [...nodes].sort((a, b) => (a === NO_NODE) - (b === NO_NODE) || order.compare(a, b));
        return table("Nodes across, databases with their services down", ["Database or service", ...across].map(head),
            lines.map(([first, name, below, at]) => element("tr", {class: below ? "below" : first ? "first" : null},
                rowHead(...name), ...across.map((node) => cell(...(at.get(node) || []))))));
    }

    function showMap() {
        listing("Map", chosen, ["database", "databases"], (rows) => [map(rows)], filters(), legend());
    }

    function findingsTable(found) {
        return table("Findings", ["Severity", "Finding", "Key", "Reason", "Readers see", "Remedy"].map(head),
            found.map((one) => element("tr", {}, cell(element("span", {class: one.severity === "error" ? "bad" : null},
                one.severity)), cell(one.rule), rowHead(element("code", {}, text(one.path))), cell(text(one.reason)),
            cell(text(one.readers_see)), one.mend === null ? cell("decide: " + text(one.decide))
                : cell(element("code", {}, one.mend)))));
    }

    function showFindings() {
        listing("Findings", () => data.findings, ["finding", "findings"],
            (rows) => rows.length === 0 ? [] : [findingsTable(rows)]);
    }

    function fieldRows(record) {
        return Object.entries(record)
            .filter(([name]) => !["instances", "services"].includes(name))
            .map(([name, value]) => element("tr", {}, rowHead(name),
                cell(name === "enabled" ? stateText(value)
                    : Array.isArray(value) ? value.map(text).join(", ") : text(value))));
    }

    function showDatabase(one) {
        const found = findingsOf.get(one.key), record = one.record;
        const parts = [element("h2", {}, "Database " + text(one.database)),
            element("p", {class: "note"}, element("code", {}, one.key))];
        if (one.why !== null) parts.push(element("p", {class: "bad"}, one.error + ": " + one.why));
        if (record !== null) {
            parts.push(legend(), map([one]), element("h3", {}, "Record"),
                table("Fields of the record", [head("Field"), head("Value")], fieldRows(record)));
            if (listed(record.services).length > 0)
                parts.push(element("h3", {}, "Services"), table("Services",
                    ["Service", "State", "Failover", "Environment"].map(head),
                    record.services.map((each) => element("tr", {}, rowHead(text(each.name)), cell(stateText(each.enabled)),
                        cell(text(data.failover[each.rcn_policy])), cell(listed(each.env).map(text).join(", "))))));
        }
        parts.push(element("h3", {}, count(found.length, "finding", "findings")));
        if (found.length > 0) parts.push(findingsTable(found));
        fill = show;
        main.replaceChildren(...parts);
    }

    // ---- The page as a whole ----------------------------------------------------------------

    function show() {
        const [name, key] = location.hash.slice(1).split("/");
        const one = name === "database" && data.databases.find((each) => address(each) === location.hash);
        if (one) showDatabase(one);
        else if (name === "map") showMap();
        else if (name === "findings") showFindings();
        else showDatabases();
        for (const to of document.querySelectorAll("nav a")) {
            const current = to.hash === "#" + (name || "databases") && key === undefined;
            if (current) to.setAttribute("aria-current", "page");
            else to.removeAttribute("aria-current");
        }
    }

    function showHead() {
        document.getElementById("made").textContent = data.registry + ", revision " + data.revision + ", read " +
            data.made + " by " + data.tool + ": " + count(data.databases.length, "database", "databases") + ", " +
            count(data.findings.length, "finding", "findings");
    }

    // The server sends a revision when what it has read of the cluster is new.
    function follow() {
        const state = document.getElementById("state"), events = new EventSource("v1/events");
        let shown = data.revision;
        events.addEventListener("open", () => { state.textContent = "live"; });
        events.addEventListener("error", () => { state.textContent = "the server does not answer: this may be old"; });
        events.addEventListener("revision", async (event) => {
            if (Number(event.data) === shown) return;
            const answer = await fetch("page.json");
            if (!answer.ok) return;
            take(await answer.json());
            shown = data.revision;
            showHead();
            fill();
        });
    }

    const print = (printing) => () => { state.printing = printing; fill(); };

    take(JSON.parse(document.getElementById("data").textContent));
    showHead();
    show();
    if (document.body.dataset.live === "yes") follow();
    window.addEventListener("hashchange", () => {
        if (location.hash === "#content") return;
        state.page = 0;
        show();
        main.focus();
        scrollTo(0, 0);
    });
    window.addEventListener("beforeprint", print(true));
    window.addEventListener("afterprint", print(false));
})();
