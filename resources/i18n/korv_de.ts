<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de_DE" sourcelanguage="en">
<context>
    <name>QMainWindow</name>
    <message>
        <source>Task Manager KORV</source>
        <translation>Task-Manager KORV</translation>
    </message>
    <message>
        <source>&amp;File</source>
        <translation>&amp;Datei</translation>
    </message>
    <message>
        <source>Run &amp;new task…</source>
        <translation>&amp;Neuen Task ausführen…</translation>
    </message>
    <message>
        <source>New &amp;Video Recording…</source>
        <translation>Neue &amp;Videoaufnahme…</translation>
    </message>
    <message>
        <source>E&amp;xit</source>
        <translation>&amp;Beenden</translation>
    </message>
    <message>
        <source>&amp;Edit</source>
        <translation>&amp;Bearbeiten</translation>
    </message>
    <message>
        <source>&amp;Find</source>
        <translation>&amp;Suchen</translation>
    </message>
    <message>
        <source>&amp;View</source>
        <translation>&amp;Ansicht</translation>
    </message>
    <message>
        <source>Se&amp;ttings</source>
        <translation>&amp;Einstellungen</translation>
    </message>
    <message>
        <source>Pre&amp;vious Page</source>
        <translation>&amp;Vorherige Seite</translation>
    </message>
    <message>
        <source>Ne&amp;xt Page</source>
        <translation>&amp;Nächste Seite</translation>
    </message>
    <message>
        <source>Show Combined &amp;Disks</source>
        <translation>&amp;Datenträger zusammengefasst</translation>
    </message>
    <message>
        <source>Show Combined &amp;Network</source>
        <translation>Netz&amp;werk zusammengefasst</translation>
    </message>
    <message>
        <source>Show Combined &amp;GPUs</source>
        <translation>&amp;GPUs zusammengefasst</translation>
    </message>
    <message>
        <source>Disk &amp;Light Settings…</source>
        <translation>Datenträger-&amp;Leuchten…</translation>
    </message>
    <message>
        <source>&amp;Hide Sidebar</source>
        <translation>Seitenleiste aus&amp;blenden</translation>
    </message>
    <message>
        <source>Hide Status &amp;Bar</source>
        <translation>&amp;Statusleiste ausblenden</translation>
    </message>
    <message>
        <source>&amp;Full Screen</source>
        <translation>V&amp;ollbild</translation>
    </message>
    <message>
        <source>Displa&amp;y Color</source>
        <translation>Anzeige&amp;farbe</translation>
    </message>
    <message>
        <source>Color</source>
        <translation>Farbe</translation>
    </message>
    <message>
        <source>Mono</source>
        <translation>Mono</translation>
    </message>
    <message>
        <source>Green</source>
        <translation>Grün</translation>
    </message>
    <message>
        <source>Amber</source>
        <translation>Bernstein</translation>
    </message>
    <message>
        <source>Blue</source>
        <translation>Blau</translation>
    </message>
    <message>
        <source>&amp;Popout</source>
        <translation>&amp;Popout</translation>
    </message>
    <message>
        <source>Off</source>
        <translation>Aus</translation>
    </message>
    <message>
        <source>Hide the popout</source>
        <translation>Das Popout ausblenden</translation>
    </message>
    <message>
        <source>Desktop</source>
        <translation>Desktop</translation>
    </message>
    <message>
        <source>Park the popout on the desktop, behind every window</source>
        <translation>Das Popout auf dem Desktop hinter allen Fenstern abstellen</translation>
    </message>
    <message>
        <source>Topmost</source>
        <translation>Immer oben</translation>
    </message>
    <message>
        <source>Keep the popout above every other window</source>
        <translation>Das Popout über allen anderen Fenstern halten</translation>
    </message>
    <message>
        <source>Floating</source>
        <translation>Schwebend</translation>
    </message>
    <message>
        <source>Show the popout as an ordinary floating window</source>
        <translation>Das Popout als gewöhnliches schwebendes Fenster zeigen</translation>
    </message>
    <message>
        <source>&amp;Performance</source>
        <translation>&amp;Leistung</translation>
    </message>
    <message>
        <source>&amp;Benchmarks</source>
        <translation>Be&amp;nchmarks</translation>
    </message>
    <message>
        <source>&amp;Disk Space</source>
        <translation>&amp;Speicherplatz</translation>
    </message>
    <message>
        <source>&amp;Help</source>
        <translation>&amp;Hilfe</translation>
    </message>
    <message>
        <source>Check for &amp;Updates…</source>
        <translation>Nach &amp;Updates suchen…</translation>
    </message>
    <message>
        <source>&amp;Provide Feedback…</source>
        <translation>&amp;Feedback geben…</translation>
    </message>
    <message>
        <source>Pri&amp;vacy Promise…</source>
        <translation>&amp;Datenschutzversprechen…</translation>
    </message>
    <message>
        <source>&amp;About Task Manager KORV…</source>
        <translation>Ü&amp;ber Task-Manager KORV…</translation>
    </message>
</context>
<context>
    <name>QObject</name>
    <message>
        <source>The Linux client could not start: %1</source>
        <translation>Der Linux-Client konnte nicht starten: %1</translation>
    </message>
</context>
<context>
    <name>TaskManagerWindow</name>
    <message>
        <source>Task Manager pages</source>
        <translation>Seiten des Task-Managers</translation>
    </message>
    <message>
        <source>&amp;Settings</source>
        <translation>&amp;Einstellungen</translation>
    </message>
    <message>
        <source>&amp;Colors</source>
        <translation>&amp;Farben</translation>
    </message>
    <message>
        <source>Summary</source>
        <translation>Übersicht</translation>
    </message>
    <message>
        <source>Performance</source>
        <translation>Leistung</translation>
    </message>
    <message>
        <source>Processes</source>
        <translation>Prozesse</translation>
    </message>
    <message>
        <source>System Info</source>
        <translation>Systeminfo</translation>
    </message>
    <message>
        <source>Startup apps</source>
        <translation>Autostart-Apps</translation>
    </message>
    <message>
        <source>Users</source>
        <translation>Benutzer</translation>
    </message>
    <message>
        <source>Services</source>
        <translation>Dienste</translation>
    </message>
    <message>
        <source>Power &amp; Freq</source>
        <translation>Energie &amp; Takt</translation>
    </message>
    <message>
        <source>Flight Recorder</source>
        <translation>Flugschreiber</translation>
    </message>
    <message>
        <source>Connections</source>
        <translation>Verbindungen</translation>
    </message>
    <message>
        <source>Installed Apps</source>
        <translation>Installierte Apps</translation>
    </message>
    <message>
        <source>Drivers</source>
        <translation>Treiber</translation>
    </message>
    <message>
        <source>Disk Space</source>
        <translation>Speicherplatz</translation>
    </message>
    <message>
        <source>Benchmarks</source>
        <translation>Benchmarks</translation>
    </message>
    <message>
        <source>Settings</source>
        <translation>Einstellungen</translation>
    </message>
    <message>
        <source>Hide sidebar</source>
        <translation>Seitenleiste ausblenden</translation>
    </message>
    <message>
        <source>Process &amp;View</source>
        <translation>Prozess&amp;ansicht</translation>
    </message>
    <message>
        <source>Filter current table</source>
        <translation>Aktuelle Tabelle filtern</translation>
    </message>
    <message>
        <source>Filter by name, user, or PID</source>
        <translation>Nach Name, Benutzer oder PID filtern</translation>
    </message>
    <message>
        <source>Run &amp;new task</source>
        <translation>&amp;Neuen Task ausführen</translation>
    </message>
    <message>
        <source>&amp;Refresh</source>
        <translation>A&amp;ktualisieren</translation>
    </message>
    <message>
        <source>Settings could not be loaded: %1</source>
        <translation>Die Einstellungen konnten nicht geladen werden: %1</translation>
    </message>
    <message>
        <source>Settings could not be saved: %1</source>
        <translation>Die Einstellungen konnten nicht gespeichert werden: %1</translation>
    </message>
</context>
</TS>
