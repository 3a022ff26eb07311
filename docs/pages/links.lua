-- Links between the Markdown files become links between the pages, which are in one folder, and links
-- to an interface's description lead to its page. Diagrams become the drawings that scripts/draw has
-- made of them.
local function page(target)
    local path, anchor = target:match("^([^#]*)(.*)$")
    if path:match("^%a+:") then
        return target
    end
    path = path:gsub("^%.%./", ""):gsub("^docs/", "")
    path = path:gsub("^data/(com%..*)%.xml$", "%1.html")
    return path:gsub("^README%.md$", "index.html"):gsub("%.md$", ".html") .. anchor
end

function Link(link)
    link.target = page(link.target)
    return link
end

function Image(image)
    image.src = page(image.src)
    return image
end

local count = 0

function CodeBlock(block)
    if block.classes[1] ~= "mermaid" then
        return nil
    end
    count = count + 1
    local name = PANDOC_STATE.input_files[1]:match("([^/]*)%.md$") .. "-" .. count .. ".svg"
    local file = io.open("docs/drawings/" .. name)
    local drawing = file and file:read("a") or ""
    if not drawing:find(pandoc.utils.sha1(block.text), 1, true) then
        error("docs/drawings/" .. name .. " is missing or not of today's text: run scripts/draw")
    end
    return pandoc.RawBlock("html", '<figure class="drawing">' .. drawing .. "</figure>")
end
